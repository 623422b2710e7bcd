// The two worker-thread classes: GThread calls its work function again and again, GLiteThread calls
// its function once. Neither can be started again after its thread has ended.
//
// Owner thread: the thread that makes the object starts and destroys it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <optional>

namespace vexa {

// A function that a worker thread calls with its context.
using GThreadFunction = std::int32_t (*)(void* context);

// A looping worker: init function, then the work function about every 30 ms, then the exit
// function.
class GThread {
  public:
    // Any function may be null. `workFunction` ends the loop by returning -1; `initFunction` and
    // `exitFunction` return non-zero for success. With `runOnce` there is a single pass.
    GThread(GThreadFunction workFunction, GThreadFunction firstRequestHandler,
            GThreadFunction secondRequestHandler, GThreadFunction initFunction,
            GThreadFunction exitFunction, void* context, int reserved, bool runOnce);

    // Stops the loop and waits for the thread. It does not wake a work function that blocks: the
    // owner must do so first.
    virtual ~GThread();

    GThread(const GThread&) = delete;
    GThread& operator=(const GThread&) = delete;

    // Starts the thread; false when it cannot be created. The priority has no effect here.
    bool Start(int priority);

    // Stops the loop. A work function that still blocks after `graceMs` is interrupted by the
    // I/O-abort signal, which must be registered. Returns when the loop has ended.
    void StopBlocked(std::uint32_t graceMs);

  private:
    static void* ThreadMain(void* thread);
    void Run();
    void RunPasses();

    GThreadFunction workFunction;
    GThreadFunction firstRequestHandler;
    GThreadFunction secondRequestHandler;
    GThreadFunction initFunction;
    GThreadFunction exitFunction;
    void* context;
    std::optional<pthread_t> threadHandle;
    // Written by one thread and polled by the other.
    std::atomic<bool> stopRequested;
    std::atomic<bool> alive{true};
    std::atomic<bool> secondRequestPending{false};
    std::atomic<bool> firstRequestPending{false};
    bool runOnce;
};

// A one-call worker with a stop hook. The service has no caller but the signalled writer of
// GDeviceIO, which it does not switch on.
class GLiteThread {
  public:
    // `stopFunction` makes `runFunction` return; it may be null and may be called twice.
    GLiteThread(GThreadFunction runFunction, GThreadFunction stopFunction, void* context);

    // Calls the stop function and waits for the thread; does nothing if it was never started.
    virtual ~GLiteThread();

    GLiteThread(const GLiteThread&) = delete;
    GLiteThread& operator=(const GLiteThread&) = delete;

    // Starts the thread; false when it cannot be created. The priority has no effect here.
    bool Start(int priority);

    // Calls the stop function. A run function that still blocks after `graceMs` is interrupted by
    // the I/O-abort signal, which must be registered. Returns when it has returned.
    void StopBlocked(std::uint32_t graceMs);

  private:
    static void* ThreadMain(void* thread);

    GThreadFunction runFunction;
    GThreadFunction stopFunction;
    void* context;
    std::optional<pthread_t> threadHandle;
    std::atomic<bool> running{false};  // true while runFunction executes; polled by the owner
};

}  // namespace vexa
