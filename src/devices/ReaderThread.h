// The thread that a transport reads its link on, and the way it is stopped: a stop flag, the
// I/O-abort signal to get it out of its blocking call, and a bounded wait for its last word.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <optional>

namespace vexa {

// Started and stopped by the transport's owner thread; StopRequested is also read by the reader.
//
// The flags are never lowered again: after a Stop, a thread started anew finds the stop flag raised
// and ends at once. A device object therefore serves one open.
class ReaderThread {
  public:
    // What a reader does: `record` is the transport's private record, which holds this object. The
    // body returns when StopRequested is true or its link has ended for good.
    using Body = void (*)(void* record);

    ReaderThread() = default;
    // A thread that was given up is let go: it ends, last of all that shares the record, by itself.
    ~ReaderThread();
    ReaderThread(const ReaderThread&) = delete;
    ReaderThread& operator=(const ReaderThread&) = delete;

    // Starts `body(record.get())` on a thread of its own, which shares the record until it ends: a
    // reader that could not be stopped never touches freed memory. False when no thread could be
    // created.
    bool Start(Body body, std::shared_ptr<void> record);

    // Tells the thread to end and waits for it: at most 201 looks, 10 ms apart, with the I/O-abort
    // signal sent again at each, since one that arrives just before the blocking call wakes nobody.
    // True when the thread has ended or there was none. False when it is still running; it is then
    // left to itself, and StopRequested stays true for it.
    bool Stop();

    [[nodiscard]] bool StopRequested() const { return stopRequested; }

    // True once a Stop has given the thread up. Whoever it would deliver to may be gone.
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
