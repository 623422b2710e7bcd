// Mutexes with a polling timed lock, semaphores, yield, priorities and the I/O-abort signal.
//
// Any thread. A bool result is true exactly when the underlying system call succeeded.
#pragma once

#include <memory>
#include <string>

namespace vexa {

// A recursive mutex; made by OSCreateMutex.
struct OSMutex;

// Returns a new recursive mutex, null when there is no memory or it cannot be initialised. The name
// has no effect on this platform.
OSMutex* OSCreateMutex(const std::string& name);

// Tries the lock max(1, (timeoutMs + 1) / 2) times, 2 ms apart; with a single try it does not
// sleep. Traces a line and returns false when it never got it. Polls rather than blocks, so that a
// lock held by a stalled thread becomes a line and a failure, not a hang.
bool OSLockMutex(OSMutex* mutex, int timeoutMs);

// Waits for the lock without limit. The service has no caller.
bool OSLockMutexBlocking(OSMutex* mutex);

// Releases one level of the lock.
bool OSUnlockMutex(OSMutex* mutex);

// Frees a mutex, which must not be null nor held by another thread.
void OSDestroyMutex(OSMutex* mutex);

// A counting semaphore of this process; made by OSCreateSemaphore with count 0.
struct OSSemaphore;

// Returns a new semaphore, null on failure.
OSSemaphore* OSCreateSemaphore();

// Waits until the count is positive and takes one; false when a signal ended the wait.
bool OSWaitSemaphore(OSSemaphore* semaphore);

// Adds one to the count.
bool OSPostSemaphore(OSSemaphore* semaphore);

// Frees a semaphore that nobody waits on.
void OSDestroySemaphore(OSSemaphore* semaphore);

struct OSMutexDeleter {
    void operator()(OSMutex* mutex) const { OSDestroyMutex(mutex); }
};
struct OSSemaphoreDeleter {
    void operator()(OSSemaphore* semaphore) const { OSDestroySemaphore(semaphore); }
};
using OSMutexPtr = std::unique_ptr<OSMutex, OSMutexDeleter>;
using OSSemaphorePtr = std::unique_ptr<OSSemaphore, OSSemaphoreDeleter>;

// The signal that interrupts a blocking read, recv, accept or select: SIGRTMIN + 12.
int IOAbortSignal();
#define IO_ABORT_SIGNAL (::vexa::IOAbortSignal())

// Installs a handler that does nothing for `signalNumber`, without automatic restart. The first
// registration of the process wins: further ones return 0 and change nothing. Returns 0 on success,
// -1 for a number below 1, else the result of sigaction (with a trace line).
int OSRegisterIOAbortSignal(int signalNumber);

// Restores the default action of the registered signal, if any. Always 0. The service has no
// caller.
int OSDeregisterIOAbortSignal();

// Lets another thread run.
void OSYield();

// Thread priorities have no effect on this platform: always 1, and setting does nothing.
int OSGetThreadPriority();
void OSSetThreadPriority(int priority);

}  // namespace vexa
