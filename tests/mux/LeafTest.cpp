#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <numeric>
#include <random>

#include "mux/MuxRing.h"
#include "protocol/InitialSync.h"
#include "protocol/Packet.h"
#include "support/Bytes.h"

namespace vexa {
namespace {

TEST(PacketChecksum, SumsThePayloadForLengths5To253Only) {
    test::Bytes packet(256, 0x01);
    for (int length = 0; length <= 255; ++length) {
        packet[kLengthOffset] = static_cast<std::uint8_t>(length);
        const int payload = length >= 5 && length <= 253 ? length - 4 : 0;
        EXPECT_EQ(PacketChecksum(packet), static_cast<std::uint8_t>(2 + length + payload))
            << length;
    }
}

TEST(BuildInitialSync, GivesTheWholePacket) {
    std::array<std::uint8_t, kInitialSyncSize> packet{};
    BuildInitialSync(packet, 77);
    EXPECT_EQ(test::ToHex(packet),
              "40 19 4d d6 1a 05 4a 06 49 07 48 08 47 09 46 0a 45 0b 44 0c 43 0d 42 0e 41");
}

TEST(MuxRing, BehavesAsAQueueOfItsNewestBytes) {
    std::array<std::uint8_t, 26> storage{};
    MuxRing ring;
    ring.Init(storage.data(), storage.size());
    std::deque<std::uint8_t> model;
    std::mt19937 random(1);  // NOLINT: the same numbers every time
    std::uint8_t next = 0;
    for (int round = 0; round < 20000; ++round) {
        const auto count = static_cast<std::uint32_t>(random() % 60);
        if (random() % 3 == 0) {
            test::Bytes data(count);
            std::iota(data.begin(), data.end(), next);
            ring.WriteBlock(data.data(), count);
            model.insert(model.end(), data.begin(), data.end());
            next = static_cast<std::uint8_t>(next + count);
        } else if (random() % 2 == 0) {
            ring.Put(next);
            model.push_back(next++);
        } else {
            for (std::uint32_t i = 0; i < count % 8; ++i) {
                std::uint8_t byte = 0;
                ASSERT_EQ(ring.Get(byte), model.empty() ? 0 : 1);
                if (model.empty()) break;
                ASSERT_EQ(byte, model.front());
                model.pop_front();
            }
        }
        while (model.size() > ring.Capacity()) model.pop_front();
        ASSERT_EQ(ring.Count(), model.size());

        test::Bytes peeked(60);
        const auto offset = static_cast<std::uint32_t>(random() % 30);
        const auto expected = static_cast<std::int32_t>(std::min<std::size_t>(
            count, model.size() - std::min<std::size_t>(offset, model.size())));
        ASSERT_EQ(ring.Peek(peeked.data(), offset, static_cast<std::int32_t>(count)), expected);
        ASSERT_TRUE(
            std::equal(peeked.begin(), peeked.begin() + expected,
                       model.begin() + std::min<long>(offset, static_cast<long>(model.size()))));
    }
    std::uint8_t none = 0;
    EXPECT_EQ(ring.Peek(&none, 0, -1), 0);
    ring.Reset();
    EXPECT_FALSE(ring.PeekNewest(&none, 1));
}

}  // namespace
}  // namespace vexa
