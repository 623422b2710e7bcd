// The byte stream of a unit, cut into frames and packets; every packet that a host sends, byte for
// byte; packets in words.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "host/FakeService.h"
#include "vexahost/Describe.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"
#include "vexahost/Requests.h"

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

using vexa::ControllerCommand;

Packet Command(std::uint8_t sequence, ControllerCommand command, const Bytes& arguments = {},
               ChildId controller = 1) {
    return BuildControllerCommand(controller, sequence, command, arguments);
}

TEST(Requests, AreWhatTheUnitExpects) {
    struct Case {
        Packet packet;
        const char* expected;
        const char* words;
    };
    const Bytes three = {1, 2, 3};
    const Case cases[] = {
        {BuildInitialSync(7),
         "40 19 07 90 1a 05 4a 06 49 07 48 08 47 09 46 0a 45 0b 44 0c 43 0d 42 0e 41",
         "initial sync"},
        {*BuildMultiplexerCommand(2, 5, three), "40 08 02 55 05 01 02 03",
         "multiplexer command 0x5"},
        {*BuildTunnel(0xA1B2C3D4, 0xFF, three), "60 0b ff 5a d4 c3 b2 a1 01 02 03",
         "3 bytes to child 0xA1B2C3D4"},
        {Command(3, ControllerCommand::kOpenChild, OpenArguments(1, "Controller")),
         "60 1d 03 71 01 00 00 00 40 15 03 f8 70 01 00 00 00 0b 43 6f 6e 74 72 6f 6c 6c 65 72 00",
         "open controller 0x1, with DAQ, by name"},
        {Command(4, ControllerCommand::kReopenController, ReopenArguments(0x102, false), 0x102),
         "60 12 04 ff 02 01 00 00 40 0a 04 c3 72 02 01 00 00 00",
         "open controller 0x102, without DAQ"},
        {Command(4, ControllerCommand::kReopenController, ReopenArguments(1, true)),
         "60 12 04 fb 01 00 00 00 40 0a 04 c2 72 01 00 00 00 01", "open controller 0x1, with DAQ"},
        {Command(5, ControllerCommand::kOpenChild, OpenArguments(0x1001, "Mic")),
         "60 16 05 5e 01 00 00 00 40 0e 05 f1 70 01 10 00 00 04 4d 69 63 00",
         "open child 0x1001 \"Mic\""},
        {Command(6, ControllerCommand::kCloseChild, CloseArguments(0x1001)),
         "60 11 06 1a 01 00 00 00 40 09 06 d1 71 01 10 00 00", "close child 0x1001"},
        {Command(6, ControllerCommand::kCloseChild, CloseArguments(1)),
         "60 11 06 fa 01 00 00 00 40 09 06 c1 71 01 00 00 00", "close controller 0x1"},
        {Command(8, ControllerCommand::kQueryDaqApplication),
         "60 0d 08 f6 01 00 00 00 40 05 08 c0 73", "query DAQ application"},
        {Command(8, ControllerCommand::kTakeDaqOver), "60 0d 08 f8 01 00 00 00 40 05 08 c1 74",
         "take DAQ over"},
    };
    for (const Case& request : cases) {
        EXPECT_EQ(ToHex(request.packet.Bytes()), request.expected) << request.words;
        EXPECT_EQ(DescribePacket(Direction::kToUnit, request.packet.Bytes()), request.words);
    }
}

TEST(Requests, AreAsLongAsAPacketCanBeAndNoLonger) {
    EXPECT_EQ(BuildTunnel(1, 0, Bytes(247))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildTunnel(1, 0, Bytes(248)));
    EXPECT_EQ(BuildMultiplexerCommand(0, 1, Bytes(250))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildMultiplexerCommand(0, 1, Bytes(251)));
    EXPECT_EQ(OpenArguments(2, std::string(220, 'x')), OpenArguments(2, std::string(219, 'x')));
    EXPECT_EQ(Command(0, ControllerCommand::kOpenChild, Bytes(243)).Bytes().size(), 255U);
}

TEST(Describe, SaysWhatTheUnitAnswers) {
    const std::pair<Bytes, const char*> cases[] = {
        {SyncReply(3, 9), "initial-sync reply (request 9)"},
        {Sealed({0x9C, 7, 0, 0, 5, 2, 48}),
         "multiplexer command 0x5 (request 2): error 48, the DAQ link is closed"},
        {Sealed({0xB8, 7, 0, 0, 5, 2, 0}), "DAQ: command 0x5 (request 2): done"},
        {ControllerReply(1, 0, 0x9C, 0x70, 6, 50),
         "open child (request 6): error 50, ten children are open already"},
        {Sealed({0x60, 10, 0, 0, 1, 0x10, 0, 0, 5, 6}), "2 bytes from child 0x1001"},
        {{0xA0, 6, 0, 0, 1, 2}, "DAQ packet of 6 bytes (checksum WRONG)"},
        {{0xA0, 9, 0, 0}, "DAQ packet of 4 bytes (length byte says 9)"},
        {{}, "fragment of 0 bytes"},
    };
    for (const auto& [packet, words] : cases) {
        EXPECT_EQ(DescribePacket(Direction::kFromUnit, packet), words);
    }
}

}  // namespace
}  // namespace vexahost
