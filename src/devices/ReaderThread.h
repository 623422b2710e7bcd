// The reader thread of a transport. It is stopped by a flag, the I/O-abort signal that interrupts
// its blocking call, and a bounded wait.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <optional>

namespace vexa {

// Owner thread, except StopRequested and GivenUp, which the reader thread calls too.
//
// The flags are never cleared: after a Stop, a new thread finds the stop flag set and ends at once.
// A device object therefore serves one open.
class ReaderThread {
  public:
    // Reads and delivers. `record` is the transport's private record, which contains this object.
    // It returns when StopRequested is true, or when its link has ended for good.
    using Body = void (*)(void* record);

    ReaderThread() = default;
    // Detaches a thread that was given up; it ends by itself and frees the record then.
    ~ReaderThread();
    ReaderThread(const ReaderThread&) = delete;
    ReaderThread& operator=(const ReaderThread&) = delete;

    // Runs `body(record.get())` on a new thread. The thread shares the record until it ends, so
    // that a reader that cannot be stopped never touches freed memory. False when no thread could
    // be created.
    bool Start(Body body, std::shared_ptr<void> record);

    // Tells the thread to end and waits for it: checks at most 201 times, 10 ms apart, and sends
    // the I/O-abort signal again each time, because one that arrives just before the blocking call
    // interrupts nothing. True when the thread has ended or there was none. False when it still
    // runs; it is then given up.
    bool Stop();

    [[nodiscard]] bool StopRequested() const { return stopRequested; }

    // True once a Stop has given the thread up. It must deliver nothing more.
    [[nodiscard]] bool GivenUp() const { return givenUp; }

  private:
    struct Launch;
    static void* ThreadMain(void* launch);
    void LetGo();

    std::optional<pthread_t> threadHandle;
    std::atomic<bool> stopRequested{false};  // written by Stop, read by the thread
    std::atomic<bool> threadExited{false};   // written by the thread as its last act
    std::atomic<bool> givenUp{false};        // written by Stop, read by the thread
};

}  // namespace vexa
