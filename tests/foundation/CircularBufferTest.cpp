#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "foundation/GCircularBuffer.h"
#include "support/System.h"

namespace vexa {
namespace {

// Every operation against a queue that keeps its newest 10 bytes.
TEST(GCircularBuffer, BehavesAsAQueueOfItsNewestBytes) {
    constexpr std::int32_t kCapacity = 10;
    GCircularBuffer buffer(kCapacity);
    std::deque<unsigned char> model;
    std::mt19937 random(1);  // NOLINT: the same numbers every time
    unsigned char next = 0;
    std::int32_t total = 0;
    for (int round = 0; round < 20000; ++round) {
        const auto count = static_cast<std::int32_t>(random() % 16) - 2;
        const auto given = static_cast<std::size_t>(std::max(count, 0));
        std::vector<unsigned char> got(16);
        if (random() % 2 == 0) {
            std::vector<unsigned char> data(given);
            std::iota(data.begin(), data.end(), next);
            next = static_cast<unsigned char>(next + given);
            total += static_cast<std::int32_t>(given);
            ASSERT_EQ(buffer.Write(data.data(), count), 1);
            model.insert(model.end(), data.begin(), data.end());
            while (model.size() > kCapacity) model.pop_front();
        } else {
            const std::size_t expected = std::min(given, model.size());
            ASSERT_EQ(buffer.Read(got.data(), count), expected);
            ASSERT_TRUE(
                std::equal(got.begin(), got.begin() + static_cast<long>(expected), model.begin()));
            model.erase(model.begin(), model.begin() + static_cast<long>(expected));
        }
        const auto offset = static_cast<std::int32_t>(random() % 14) - 1;
        const std::int32_t left = static_cast<std::int32_t>(model.size()) - std::max(offset, 0);
        const std::int32_t peeked = buffer.Peek(got.data(), offset, count);
        ASSERT_EQ(peeked, std::min(left, std::max(count, 0)));
        for (std::int32_t i = 0; i < peeked; ++i) {
            ASSERT_EQ(got[static_cast<std::size_t>(i)],
                      model[static_cast<std::size_t>(i + std::max(offset, 0))]);
        }
        ASSERT_EQ(buffer.GetBytesAvailable(), model.size());
        ASSERT_EQ(buffer.GetTotalBytesWritten(), total);
    }
    EXPECT_EQ(buffer.Clear(), 1);
    EXPECT_EQ(buffer.GetBytesAvailable(), 0);
    EXPECT_EQ(buffer.GetTotalBytesWritten(), total) << "Clear keeps it";
}

TEST(GCircularBuffer, RefusesEverythingWithoutItsGuard) {
    const test::VirtualTime time;
    CeilingMutex noMutex{kCeilingPriority, nullptr};
    CeilingMutex taken{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))};
    GCircularBuffer buffer(10);
    unsigned char bytes[3] = {1, 2, 3};
    ASSERT_EQ(buffer.Write(bytes, 3), 1);
    ASSERT_TRUE(OSLockMutex(taken.mutex.get(), 1));
    for (CeilingMutex* guard : {&noMutex, &taken}) {
        buffer.lock = guard;
        std::thread([&] {
            EXPECT_EQ(buffer.Write(bytes, 3), 0);
            EXPECT_EQ(test::VirtualTime::TakeSleeps().size(), guard == &taken ? 1000U : 0U);
            EXPECT_EQ(buffer.Read(bytes, 3), 0);
            EXPECT_EQ(buffer.Peek(bytes, 0, 3), 0);
            EXPECT_EQ(buffer.Clear(), 0);
            EXPECT_EQ(buffer.GetBytesAvailable(), 0);
            EXPECT_EQ(buffer.GetTotalBytesWritten(), 0);
        }).join();
    }
    OSUnlockMutex(taken.mutex.get());
    EXPECT_EQ(buffer.GetBytesAvailable(), 3);
}

TEST(GCircularBuffer, CarriesBytesBetweenTwoThreads) {
    constexpr std::int32_t kTotal = 50000;
    CeilingMutex guard{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))};
    GCircularBuffer buffer(kTotal);
    buffer.lock = &guard;
    std::thread producer([&] {
        unsigned char block[250];
        for (std::int32_t sent = 0; sent < kTotal; sent += 250) {
            std::iota(std::begin(block), std::end(block), static_cast<unsigned char>(sent));
            ASSERT_EQ(buffer.Write(block, 250), 1);
        }
    });
    std::int32_t taken = 0;
    unsigned char block[333];
    while (taken < kTotal) {
        const std::int32_t count = buffer.Read(block, 333);
        for (std::int32_t i = 0; i < count; ++i) {
            ASSERT_EQ(block[i], static_cast<unsigned char>(taken + i));
        }
        taken += count;
    }
    producer.join();
}

}  // namespace
}  // namespace vexa
