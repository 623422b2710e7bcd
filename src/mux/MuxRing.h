// The multiplexer's own byte ring: no lock; the oldest byte is overwritten when it is full. A leaf.
// One thread at a time.
#pragma once

#include <cstdint>
#include <span>

namespace vexa {

// A plain record over storage of its user's. Holds at most size - 1 bytes; empty when the indices
// are equal.
struct MuxRing {
    std::uint8_t* storage = nullptr;  // not owned
    std::uint32_t readIndex = 0;
    std::uint32_t writeIndex = 0;
    std::uint32_t size = 0;  // of the storage, in bytes; at least 2

    // Puts the empty ring on `bytes` bytes of storage.
    void Init(std::uint8_t* store, std::uint32_t bytes);

    // Appends one byte; the oldest is lost when the ring is full.
    void Put(std::uint8_t byte);

    // Removes the oldest byte. Returns 1, or 0 when the ring is empty.
    int Get(std::uint8_t& byte);

    // Copies up to `count` bytes, beginning `offset` places after the oldest, and removes nothing.
    // Returns the number copied.
    std::int32_t Peek(std::uint8_t* dest, std::uint32_t offset, std::int32_t count) const;

    // Copies the newest `count` bytes, if that many are held; false, and nothing is copied, if not.
    bool PeekNewest(std::uint8_t* dest, std::uint32_t count) const;

    // Appends `count` bytes, losing the oldest as needed.
    void WriteBlock(const std::uint8_t* source, std::uint32_t count);

    // The oldest bytes, as many as are contiguous; empty when the ring is. Valid until the ring is
    // written.
    [[nodiscard]] std::span<const std::uint8_t> Oldest() const {
        return {storage + readIndex, (writeIndex >= readIndex ? writeIndex : size) - readIndex};
    }

    // Removes the `count` oldest bytes, at most as many as Oldest gives.
    void Drop(std::uint32_t count) {
        readIndex += count;
        if (readIndex == size) readIndex = 0;
    }

    // Empties the ring.
    void Reset();

    [[nodiscard]] std::uint32_t Count() const {
        return writeIndex >= readIndex ? writeIndex - readIndex : writeIndex + size - readIndex;
    }
    [[nodiscard]] std::uint32_t Capacity() const { return size - 1; }
};

}  // namespace vexa
