#include "mux/MuxRing.h"

#include <algorithm>
#include <cstring>

namespace vexa {

namespace {

std::uint32_t Next(std::uint32_t index, std::uint32_t size) {
    return index + 1 == size ? 0 : index + 1;
}

}  // namespace

void MuxRing::Init(std::uint8_t* store, std::uint32_t bytes) {
    storage = store;
    size = bytes;
    Reset();
}

void MuxRing::Put(std::uint8_t byte) {
    storage[writeIndex] = byte;
    writeIndex = Next(writeIndex, size);
    if (writeIndex == readIndex) readIndex = Next(readIndex, size);
}

int MuxRing::Get(std::uint8_t& byte) {
    if (readIndex == writeIndex) return 0;
    byte = storage[readIndex];
    readIndex = Next(readIndex, size);
    return 1;
}

std::int32_t MuxRing::Peek(std::uint8_t* dest, std::uint32_t offset, std::int32_t count) const {
    const std::uint32_t held = Count();
    if (count <= 0 || offset >= held) return 0;
    const std::uint32_t total = std::min(static_cast<std::uint32_t>(count), held - offset);
    std::uint32_t start = readIndex + offset;
    if (start >= size) start -= size;
    const std::uint32_t first = std::min(total, size - start);
    std::memcpy(dest, storage + start, first);
    std::memcpy(dest + first, storage, total - first);
    return static_cast<std::int32_t>(total);
}

bool MuxRing::PeekNewest(std::uint8_t* dest, std::uint32_t count) const {
    const std::uint32_t held = Count();
    if (held < count) return false;
    Peek(dest, held - count, static_cast<std::int32_t>(count));
    return true;
}

void MuxRing::WriteBlock(const std::uint8_t* source, std::uint32_t count) {
    // Only the newest size - 1 bytes of a longer block can survive.
    if (count > Capacity()) {
        source += count - Capacity();
        count = Capacity();
    }
    if (count == 0) return;
    const std::uint32_t held = Count();
    const std::uint32_t first = std::min(count, size - writeIndex);
    std::memcpy(storage + writeIndex, source, first);
    std::memcpy(storage, source + first, count - first);
    writeIndex += count;
    if (writeIndex >= size) writeIndex -= size;
    if (held + count > Capacity()) readIndex = Next(writeIndex, size);
}

void MuxRing::Reset() {
    readIndex = 0;
    writeIndex = 0;
}

}  // namespace vexa
