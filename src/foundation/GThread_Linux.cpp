#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <new>

#include "foundation/GUtils.h"
#include "foundation/OSThreading.h"

namespace vexa {

struct OSMutex {
    pthread_mutex_t native;
};

struct OSSemaphore {
    sem_t native;
};

namespace {

constexpr char kModule[] = "GThread_Linux";
constexpr int kMutexInitLine = 62;
constexpr int kLockFailedLine = 118;
constexpr int kSemaphoreInitLine = 171;
constexpr int kRegisterFailedLine = 266;
constexpr int kDeregisterFailedLine = 285;

constexpr std::uint32_t kLockRetryMs = 2;

std::atomic<int> registeredSignal{0};  // 0: none; set by the first transport that opens

// The message gives both as signed decimals of 32 bits, whatever the width of the platform's own.
template <typename Handle>
int AsDecimal(Handle handle) {
    return static_cast<int>((std::uintptr_t)handle);  // NOLINT: pointer or integer by platform
}

void TraceLockFailure(const OSMutex* mutex) {
    std::array<char, 100> text{};
    std::snprintf(text.data(), text.size(),
                  "Trying to lock mutex %d on thread %d in VEXA_lib failed", AsDecimal(mutex),
                  AsDecimal(pthread_self()));
    Trace(kTraceLevel, text.data(), kModule, kLockFailedLine);
}

int SetSignalAction(int signalNumber, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: an interrupted call must return
    return sigaction(signalNumber, &action, nullptr);
}

}  // namespace

OSMutex* OSCreateMutex(const std::string& /*name*/) {
    auto* mutex = new (std::nothrow) OSMutex;
    if (mutex == nullptr) return nullptr;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int result = pthread_mutex_init(&mutex->native, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (result == 0) return mutex;
    Trace(kTraceLevel, "Trouble in paradise", kModule, kMutexInitLine);
    delete mutex;
    return nullptr;
}

bool OSLockMutex(OSMutex* mutex, int timeoutMs) {
    unsigned attempts = (static_cast<unsigned>(timeoutMs) + 1U) / 2U;
    if (attempts == 0) attempts = 1;
    for (unsigned tried = 0; tried < attempts; ++tried) {
        if (pthread_mutex_trylock(&mutex->native) == 0) return true;
        if (attempts != 1) OSSleep(kLockRetryMs);
    }
    TraceLockFailure(mutex);
    return false;
}

bool OSLockMutexBlocking(OSMutex* mutex) { return pthread_mutex_lock(&mutex->native) == 0; }

bool OSUnlockMutex(OSMutex* mutex) { return pthread_mutex_unlock(&mutex->native) == 0; }

void OSDestroyMutex(OSMutex* mutex) {
    pthread_mutex_destroy(&mutex->native);
    delete mutex;
}

OSSemaphore* OSCreateSemaphore() {
    auto* semaphore = new (std::nothrow) OSSemaphore;
    if (semaphore == nullptr) return nullptr;
    if (sem_init(&semaphore->native, 0, 0) == 0) return semaphore;
    Trace(kTraceLevel, "Trouble in paradise", kModule, kSemaphoreInitLine);
    delete semaphore;
    return nullptr;
}

bool OSWaitSemaphore(OSSemaphore* semaphore) { return sem_wait(&semaphore->native) == 0; }

bool OSPostSemaphore(OSSemaphore* semaphore) { return sem_post(&semaphore->native) == 0; }

void OSDestroySemaphore(OSSemaphore* semaphore) {
    sem_destroy(&semaphore->native);
    delete semaphore;
}

int IOAbortSignal() { return SIGRTMIN + 12; }

int OSRegisterIOAbortSignal(int signalNumber) {
    if (signalNumber <= 0) return -1;
    if (registeredSignal != 0) return 0;
    const int result = SetSignalAction(signalNumber, [](int) {});
    if (result == 0) {
        registeredSignal = signalNumber;
    } else {
        Trace(kTraceLevel, "Register IO Abort sigaction() failed", kModule, kRegisterFailedLine);
    }
    return result;
}

int OSDeregisterIOAbortSignal() {
    if (registeredSignal == 0) return 0;
    if (SetSignalAction(registeredSignal, SIG_DFL) != 0) {
        Trace(kTraceLevel, "Deregister IO Abort sigaction() failed", kModule,
              kDeregisterFailedLine);
    }
    registeredSignal = 0;
    return 0;
}

void OSYield() { sched_yield(); }

int OSGetThreadPriority() { return 1; }

void OSSetThreadPriority(int /*priority*/) {}

}  // namespace vexa
