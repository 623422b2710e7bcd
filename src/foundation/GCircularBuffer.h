// The byte ring between two threads of the host link: never refuses data, drops the oldest instead.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "foundation/Mutex.h"
#include "foundation/OSThreading.h"

namespace vexa {

// The guard of a circular buffer: a ceiling priority and a recursive mutex. Every operation raises
// its thread to the ceiling and tries for the mutex for 2000 ms.
struct CeilingMutex {
    std::int32_t ceilingPriority;
    OSMutexPtr mutex;  // null: every operation of the buffer fails
};

// The ceiling of every guard in the system.
inline constexpr std::int32_t kCeilingPriority = 3;

// Bytes held lie between readIndex and writeIndex, wrapping at size = capacity + 1; one cell stays
// empty so that full and empty differ:
//
//   storage  |....oldest#########newest....|        readIndex -> oldest, writeIndex -> after newest
//
// Any thread, when `lock` is set. Nothing is allocated after construction.
class GCircularBuffer {
  public:
    // `capacity` in bytes, above 0.
    explicit GCircularBuffer(std::int32_t capacity);
    virtual ~GCircularBuffer() = default;

    GCircularBuffer(const GCircularBuffer&) = delete;
    GCircularBuffer& operator=(const GCircularBuffer&) = delete;

    // Stores `count` bytes, of which the newest `capacity` survive together with what was held.
    // Returns 1, or 0 when the guard could not be taken. A negative count stores nothing.
    std::int32_t Write(const unsigned char* data, std::int32_t count);

    // Removes up to `count` of the oldest bytes. Returns how many, 0 also without the guard.
    std::int32_t Read(unsigned char* dest, std::int32_t count);

    // Copies up to `count` bytes, beginning `offset` places after the oldest, and removes nothing.
    // Returns how many. With an offset past the held bytes nothing is copied and the result is the
    // negative distance. The service has no caller.
    std::int32_t Peek(unsigned char* dest, std::int32_t offset, std::int32_t count);

    // Empties the buffer. Returns 1, or 0 without the guard.
    std::int32_t Clear();

    // Bytes held, 0 also without the guard.
    std::int32_t GetBytesAvailable();

    // Whether no byte was held a moment ago. Does not wait for the guard.
    [[nodiscard]] bool SeemsEmpty() const { return empty.load(std::memory_order_relaxed); }

    // All bytes ever given to Write, dropped ones included; wraps at 32 bits. The service has no
    // caller.
    std::int32_t GetTotalBytesWritten();

    // The guard, not owned; null for none. Set directly after construction, before another thread
    // has the buffer.
    CeilingMutex* lock = nullptr;

  private:
    // Whatever is inside Guarded, with the guard if there is one. Not a mutex itself: it lets the
    // compiler check that the fields are used nowhere else.
    class VEXA_CAPABILITY("role") Access {};

    template <typename Operation>
    std::int32_t Guarded(Operation operation) VEXA_UNCHECKED;
    template <typename Operation>
    std::int32_t WithAccess(Operation operation) VEXA_REQUIRES(access);
    [[nodiscard]] std::int32_t Held() const VEXA_REQUIRES(access);
    [[nodiscard]] std::int32_t Wrapped(std::int32_t index) const;
    void WriteUnguarded(const unsigned char* data, std::int32_t count) VEXA_REQUIRES(access);
    std::int32_t ReadUnguarded(unsigned char* dest, std::int32_t count) VEXA_REQUIRES(access);
    std::int32_t PeekUnguarded(unsigned char* dest, std::int32_t offset, std::int32_t count) const
        VEXA_REQUIRES(access);

    Access access;
    const std::int32_t size;
    const std::unique_ptr<unsigned char[]> storage;
    std::int32_t readIndex VEXA_GUARDED_BY(access) = 0;
    std::int32_t writeIndex VEXA_GUARDED_BY(access) = 0;
    std::int32_t totalWritten VEXA_GUARDED_BY(access) = 0;
    std::atomic<bool> empty{true};  // as the indices say; written by those who have access
};

}  // namespace vexa
