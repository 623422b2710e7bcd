// The byte ring between two threads of the host link: never refuses data, drops the oldest instead.
#pragma once

#include <cstdint>
#include <memory>

#include "foundation/OSThreading.h"

namespace vexa {

// The guard of a circular buffer: a ceiling priority and a recursive mutex, which its owner makes
// and destroys; a timed lock of 2000 ms after raising the thread to the ceiling.
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
// One thread writes and one reads; every operation but construction and destruction takes `lock`
// when it is set. Nothing is allocated after construction.
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

    // Copies up to `count` bytes from `offset` places after the oldest on, removing nothing.
    // Returns how many; a value of 0 or less means nothing was copied (beyond the held bytes it is
    // the negative difference).
    std::int32_t Peek(unsigned char* dest, std::int32_t offset, std::int32_t count);

    // Empties the buffer. Returns 1, or 0 without the guard.
    std::int32_t Clear();

    // Bytes held, 0 also without the guard.
    std::int32_t GetBytesAvailable();

    // All bytes ever offered to Write, dropped ones included; wraps at 32 bits.
    std::int32_t GetTotalBytesWritten();

    // The guard, not owned; null for none. Set right after construction, before it is shared.
    CeilingMutex* lock = nullptr;

  private:
    template <typename Operation>
    std::int32_t Guarded(Operation operation);
    [[nodiscard]] std::int32_t Held() const;
    [[nodiscard]] std::int32_t Wrapped(std::int32_t index) const;
    void WriteUnguarded(const unsigned char* data, std::int32_t count);
    std::int32_t ReadUnguarded(unsigned char* dest, std::int32_t count);
    std::int32_t PeekUnguarded(unsigned char* dest, std::int32_t offset, std::int32_t count) const;

    // Guarded by `lock` when it is set.
    std::unique_ptr<unsigned char[]> storage;
    std::int32_t readIndex = 0;
    std::int32_t writeIndex = 0;
    std::int32_t size;
    std::int32_t totalWritten = 0;
};

}  // namespace vexa
