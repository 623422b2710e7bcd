// The byte stream of a unit, cut into frames and packets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "host/FakeService.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace vexahost {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Everything that comes of a stream that arrives in pieces, each cut off at one of `cuts`.
struct Reading {
    std::vector<Bytes> packets;
    std::vector<bool> right;
    std::string violation;  // the packets' behind the frames'
};

Reading Read(const Bytes& stream, std::vector<std::size_t> cuts, bool awaitSync = false) {
    FrameReader frames;
    PacketReader packets;
    if (awaitSync) packets.AwaitSyncReply();
    Reading reading;
    cuts.push_back(stream.size());
    std::size_t from = 0;
    for (const std::size_t to : cuts) {
        auto input = std::span<const std::uint8_t>(stream).subspan(from, to - from);
        from = to;
        for (auto piece = frames.Next(input); !piece.empty(); piece = frames.Next(input)) {
            while (const auto packet = packets.Next(piece)) {
                reading.packets.emplace_back(packet->bytes.begin(), packet->bytes.end());
                reading.right.push_back(packet->checksumRight);
            }
        }
    }
    if (frames.IsViolated()) reading.violation = frames.Violation();
    if (packets.IsViolated()) reading.violation += packets.Violation();
    return reading;
}

const Bytes kShort = {0x98, 4, 7, 0xA3};
const Bytes kWrong = {0xA0, 6, 1, 0, 1, 2};

TEST(PacketStream, ComesOutTheSameHoweverItIsCut) {
    Bytes longest(255, 0x11);
    longest[1] = 255;
    longest[3] = static_cast<std::uint8_t>(0x11 + 255 + 0x11);  // the header's sum alone
    const Bytes packets = kShort + longest + kWrong + kShort;
    // Frames end inside headers, inside payloads and between packets.
    const Bytes stream = Frame(Part(packets, 0, 2)) + Frame(Part(packets, 2, 100)) +
                         Frame(Part(packets, 100, 260)) + Frame(Part(packets, 260, 269));
    for (std::size_t first = 0; first <= stream.size(); ++first) {
        for (const std::size_t apart : {0U, 1U, 9U}) {
            const Reading reading = Read(stream, {first, std::min(first + apart, stream.size())});
            ASSERT_THAT(reading.packets, ElementsAre(kShort, longest, kWrong, kShort)) << first;
            ASSERT_THAT(reading.right, ElementsAre(true, true, false, true)) << first;
        }
    }
}

TEST(PacketStream, FrameHeadersAreChecked) {
    const std::pair<Bytes, const char*> cases[] = {
        {{0, 0, 0, 0, 'U', '0', '1', '2'}, "length 0, not 1 to 30000): 00 00 00 00 55 30 31 32"},
        {{0x31, 0x75, 0, 0, 'U', '0', '1', '2'}, "length 30001"},
        {{1, 0, 0, 1, 'U', '0', '1', '2'}, "length 16777217"},
        {{4, 0, 0, 0, 'U', '0', '1', '3'}, "no \"U012\" at its end): 04 00 00 00 55 30 31 33"},
    };
    for (const auto& [header, violation] : cases) {
        // What follows a bad header is not read any more.
        const Reading reading = Read(Frame(kShort) + header + kShort + Frame(kShort), {});
        EXPECT_THAT(reading.packets, ElementsAre(kShort));
        EXPECT_THAT(reading.violation, HasSubstr(violation));
    }
    Bytes most;
    while (most.size() < 30000) most.insert(most.end(), kShort.begin(), kShort.end());
    EXPECT_EQ(Read(Frame(most), {}).packets.size(), 7500U);
}

TEST(PacketStream, APacketShorterThanItsHeaderIsAViolation) {
    for (const std::uint8_t length : Bytes{0, 1, 3}) {
        const Reading reading = Read(Frame(kShort + Bytes{0xA0, length, 2, 3} + kShort), {});
        EXPECT_THAT(reading.packets, ElementsAre(kShort));
        EXPECT_THAT(reading.violation,
                    HasSubstr("length byte " + std::to_string(length) + ": a0 0"));
    }
}

TEST(PacketStream, ASyncReplyIsFoundInsideAnything) {
    const Bytes reply = SyncReply(0, 9);
    for (const Bytes& before : {Bytes{}, Bytes{0xA0}, Bytes{0xA0, 200, 1}, Bytes{0, 0, 0, 0, 0},
                                Bytes(40, 0xB8), kWrong, Part(reply, 0, 25)}) {
        const Reading reading = Read(Frame(before + reply + kShort), {}, true);
        EXPECT_THAT(reading.packets, ElementsAre(reply, kShort));
        EXPECT_THAT(reading.violation, IsEmpty());
    }
    // Only one that is right in every byte but its sequence numbers and the low bits of its type.
    for (const std::size_t at : {1U, 3U, 4U, 6U, 25U}) {
        Bytes wrong = reply;
        ++wrong[at];
        const Bytes stream = Frame(Bytes{0xA0, 100} + wrong + kShort);
        EXPECT_THAT(Read(stream, {}, true).packets, IsEmpty()) << at;
    }
    // In step, such bytes are data like any other.
    const Bytes data = ChildBlock(1, 0, reply);
    EXPECT_THAT(Read(Frame(data), {}).packets, ElementsAre(data));
}

}  // namespace
}  // namespace vexahost
