// Both byte rings against a queue that keeps its newest bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <thread>

#include "foundation/GCircularBuffer.h"
#include "mux/MuxRing.h"
#include "support/Bytes.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

// The multiplexer's ring with the operations of the other one, done in turn by each of its own.
class MuxRingInTurns {
  public:
    explicit MuxRingInTurns(std::uint32_t capacity) : storage(capacity + 1) {
        ring.Init(storage.data(), capacity + 1);
    }
    void Write(const std::uint8_t* data, std::int32_t count) {
        if (++turn % 2 == 0) return ring.WriteBlock(data, static_cast<std::uint32_t>(count));
        for (std::int32_t i = 0; i < count; ++i) ring.Put(data[i]);
    }
    std::int32_t Read(std::uint8_t* dest, std::int32_t count) {
        std::int32_t got = 0;
        for (; got < count && ring.Count() > 0; ++got) {
            if (++turn % 2 == 0) {
                ring.Get(dest[got]);
            } else {
                dest[got] = ring.Oldest().front();
                ring.Drop(1);
            }
        }
        return got;
    }
    std::int32_t Peek(std::uint8_t* dest, std::int32_t offset, std::int32_t count) const {
        return ring.Peek(dest, static_cast<std::uint32_t>(offset), count);
    }
    [[nodiscard]] std::uint32_t GetBytesAvailable() const { return ring.Count(); }

  private:
    Bytes storage;
    MuxRing ring;
    int turn = 0;
};

template <typename Ring>
class ByteRing : public testing::Test {};
using Rings = testing::Types<GCircularBuffer, MuxRingInTurns>;
TYPED_TEST_SUITE(ByteRing, Rings);

TYPED_TEST(ByteRing, BehavesAsAQueueOfItsNewestBytes) {
    constexpr int kCapacity = 10;
    TypeParam ring(kCapacity);
    std::deque<std::uint8_t> queue;
    std::mt19937 random(1);  // NOLINT: the same numbers every time
    std::uint8_t next = 0;
    for (int round = 0; round < 20000; ++round) {
        const int count = static_cast<int>(random() % 16);
        Bytes bytes(16);
        if (random() % 2 == 0) {
            for (auto& byte : bytes) byte = next++;
            ring.Write(bytes.data(), count);
            queue.insert(queue.end(), bytes.begin(), bytes.begin() + count);
            while (queue.size() > kCapacity) queue.pop_front();
        } else {
            const int expected = std::min(count, static_cast<int>(queue.size()));
            ASSERT_EQ(ring.Read(bytes.data(), count), expected);
            ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + expected, queue.begin()));
            queue.erase(queue.begin(), queue.begin() + expected);
        }
        ASSERT_EQ(ring.GetBytesAvailable(), queue.size());
        const int offset = static_cast<int>(random() % (queue.size() + 1));
        const int expected = std::min(count, static_cast<int>(queue.size()) - offset);
        ASSERT_EQ(ring.Peek(bytes.data(), offset, count), expected);
        ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + expected, queue.begin() + offset));
    }
}

TEST(GCircularBuffer, CountsAllThatWasWrittenAndToleratesOddArguments) {
    GCircularBuffer buffer(10);
    Bytes bytes(30, 1);
    EXPECT_EQ(buffer.Write(bytes.data(), 30) + buffer.Write(bytes.data(), -2), 2);
    EXPECT_EQ(buffer.GetTotalBytesWritten(), 30) << "dropped bytes count";
    EXPECT_EQ(buffer.Peek(bytes.data(), -1, 20), 10);
    EXPECT_EQ(buffer.Peek(bytes.data(), 12, 20), -2) << "the distance past the end";
    EXPECT_EQ(buffer.Read(bytes.data(), -2), 0);
    EXPECT_EQ(buffer.Clear(), 1);
    EXPECT_EQ(buffer.GetBytesAvailable(), 0);
    EXPECT_EQ(buffer.GetTotalBytesWritten(), 30) << "Clear keeps it";
}

TEST(GCircularBuffer, RefusesEverythingWithoutItsGuard) {
    const VirtualTime time;
    CeilingMutex noMutex{kCeilingPriority, nullptr};
    CeilingMutex held{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))};
    GCircularBuffer buffer(10);
    unsigned char bytes[3] = {1, 2, 3};
    ASSERT_EQ(buffer.Write(bytes, 3), 1);
    ASSERT_TRUE(OSLockMutex(held.mutex.get(), 1));
    for (CeilingMutex* guard : {&noMutex, &held}) {
        buffer.lock = guard;
        std::thread([&] {
            EXPECT_EQ(buffer.Write(bytes, 3), 0);
            EXPECT_EQ(VirtualTime::TakeSleeps().size(), guard == &held ? 1000U : 0U);
            EXPECT_EQ(buffer.Read(bytes, 3), 0);
            EXPECT_EQ(buffer.Peek(bytes, 0, 3), 0);
            EXPECT_EQ(buffer.Clear(), 0);
            EXPECT_EQ(buffer.GetBytesAvailable(), 0);
            EXPECT_EQ(buffer.GetTotalBytesWritten(), 0);
        }).join();
    }
    OSUnlockMutex(held.mutex.get());
    EXPECT_EQ(buffer.GetBytesAvailable(), 3);
}

}  // namespace
}  // namespace vexa
