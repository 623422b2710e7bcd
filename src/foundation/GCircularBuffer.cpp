#include "foundation/GCircularBuffer.h"

#include <algorithm>
#include <cstring>

namespace vexa {

namespace {

constexpr int kLockTimeoutMs = 2000;

void Copy(unsigned char* to, const unsigned char* from, std::int32_t count) {
    if (count > 0) std::memcpy(to, from, static_cast<std::size_t>(count));
}

}  // namespace

GCircularBuffer::GCircularBuffer(std::int32_t capacity)
    : size(capacity + 1), storage(new unsigned char[static_cast<std::size_t>(capacity) + 1]) {}

template <typename Operation>
std::int32_t GCircularBuffer::WithAccess(Operation operation) {
    const std::int32_t result = operation();
    empty.store(readIndex == writeIndex, std::memory_order_relaxed);
    return result;
}

template <typename Operation>
std::int32_t GCircularBuffer::Guarded(Operation operation) {
    if (lock == nullptr) return WithAccess(operation);
    OSMutex* const mutex = lock->mutex.get();
    if (mutex == nullptr) return 0;

    const int savedPriority = OSGetThreadPriority();
    const bool raised = savedPriority < lock->ceilingPriority;
    // On this platform every priority is 1 and stays so.
    if (raised) OSSetThreadPriority(lock->ceilingPriority);  // GCOVR_EXCL_BR_LINE
    if (!OSLockMutex(mutex, kLockTimeoutMs)) {
        if (raised) OSSetThreadPriority(savedPriority);  // GCOVR_EXCL_BR_LINE
        return 0;
    }
    const std::int32_t result = WithAccess(operation);
    OSUnlockMutex(mutex);
    const bool changed = OSGetThreadPriority() != savedPriority;
    if (changed) OSSetThreadPriority(savedPriority);  // GCOVR_EXCL_BR_LINE
    return result;
}

std::int32_t GCircularBuffer::Held() const {
    const std::int32_t difference = writeIndex - readIndex;
    return difference < 0 ? difference + size : difference;
}

std::int32_t GCircularBuffer::Wrapped(std::int32_t index) const {
    return index >= size ? index - size : index;
}

std::int32_t GCircularBuffer::Write(const unsigned char* data, std::int32_t count) {
    return Guarded([&]() VEXA_REQUIRES(access) {
        WriteUnguarded(data, std::max(count, 0));
        return 1;
    });
}

void GCircularBuffer::WriteUnguarded(const unsigned char* data, std::int32_t count) {
    const std::int32_t held = Held();
    const std::int32_t capacity = size - 1;
    totalWritten = static_cast<std::int32_t>(static_cast<std::uint32_t>(totalWritten) +
                                             static_cast<std::uint32_t>(count));
    if (count > capacity) {
        data += count - capacity;
        count = capacity;
    }
    const std::int32_t first = std::min(count, size - writeIndex);
    const std::int32_t second = count - first;
    Copy(&storage[static_cast<std::size_t>(writeIndex)], data, first);
    Copy(&storage[0], data + first, second);
    writeIndex = Wrapped(writeIndex + count);
    if (count + held >= capacity) readIndex = Wrapped(writeIndex + 1);
}

std::int32_t GCircularBuffer::Read(unsigned char* dest, std::int32_t count) {
    return Guarded([&]() VEXA_REQUIRES(access) { return ReadUnguarded(dest, count); });
}

std::int32_t GCircularBuffer::ReadUnguarded(unsigned char* dest, std::int32_t count) {
    const std::int32_t copied = PeekUnguarded(dest, 0, count);
    if (copied <= 0) return 0;
    readIndex = Wrapped(readIndex + copied);
    return copied;
}

std::int32_t GCircularBuffer::Peek(unsigned char* dest, std::int32_t offset, std::int32_t count) {
    return Guarded([&]() VEXA_REQUIRES(access) { return PeekUnguarded(dest, offset, count); });
}

std::int32_t GCircularBuffer::PeekUnguarded(unsigned char* dest, std::int32_t offset,
                                            std::int32_t count) const {
    const std::int32_t skip = std::max(offset, 0);
    const std::int32_t want = std::max(count, 0);
    const std::int32_t available = Held() - skip;
    if (available <= 0) return std::min(available, want);

    const std::int32_t start = Wrapped(readIndex + skip);
    const std::int32_t total = std::min(available, want);
    const std::int32_t first = std::min(total, size - start);
    Copy(dest, &storage[static_cast<std::size_t>(start)], first);
    Copy(dest + first, &storage[0], total - first);
    return total;
}

std::int32_t GCircularBuffer::Clear() {
    return Guarded([&]() VEXA_REQUIRES(access) {
        readIndex = 0;
        writeIndex = 0;
        return 1;
    });
}

std::int32_t GCircularBuffer::GetBytesAvailable() {
    return Guarded([&]() VEXA_REQUIRES(access) { return Held(); });
}

std::int32_t GCircularBuffer::GetTotalBytesWritten() {
    return Guarded([&]() VEXA_REQUIRES(access) { return totalWritten; });
}

}  // namespace vexa
