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

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

// The packets of a stream, a line each, with "!" after a wrong checksum; then what is wrong with
// the frames or the packets. The stream arrives in pieces that are cut off at `cuts`.
std::string Read(const Bytes& stream, std::vector<std::size_t> cuts, bool awaitSync = false) {
    FrameReader frames;
    PacketReader packets;
    if (awaitSync) packets.LoseStep();
    std::string text;
    cuts.push_back(stream.size());
    std::size_t from = 0;
    for (const std::size_t to : cuts) {
        auto input = std::span<const std::uint8_t>(stream).subspan(from, to - from);
        from = to;
        for (auto piece = frames.Next(input); !piece.empty(); piece = frames.Next(input)) {
            while (const auto packet = packets.Next(piece)) {
                text += ToHex(packet->bytes) + (packet->checksumRight ? "\n" : "!\n");
            }
        }
    }
    if (frames.IsViolated()) text += frames.Violation();
    if (packets.IsViolated()) text += packets.Violation();
    return text;
}

const Bytes kShortPacket = {0x98, 4, 7, 0xA3};
const Bytes kWrong = {0xA0, 6, 1, 0, 1, 2};
constexpr const char* kShortText = "98 04 07 a3\n";

TEST(PacketStream, ComesOutTheSameHoweverItIsCut) {
    Bytes longest(255, 0x11);
    longest[1] = 255;
    longest[3] = static_cast<std::uint8_t>(0x11 + 255 + 0x11);  // the header's sum alone
    const Bytes packets = kShortPacket + longest + kWrong + kShortPacket;
    // Frames end inside headers, inside payloads and between packets.
    const Bytes stream = Frame(Part(packets, 0, 2)) + Frame(Part(packets, 2, 100)) +
                         Frame(Part(packets, 100, 260)) + Frame(Part(packets, 260, 269));
    const std::string expected =
        kShortText + ToHex(longest) + "\n" + ToHex(kWrong) + "!\n" + kShortText;
    for (std::size_t first = 0; first <= stream.size(); ++first) {
        for (const std::size_t apart : {0U, 1U, 9U}) {
            ASSERT_EQ(Read(stream, {first, std::min(first + apart, stream.size())}), expected);
        }
    }
    Bytes most;
    while (most.size() < 30000) most = most + kShortPacket;
    EXPECT_EQ(Read(Frame(most), {}).size(), 7500 * std::string(kShortText).size());
}

TEST(PacketStream, EndsAtAViolation) {
    const std::pair<Bytes, const char*> cases[] = {
        {Hex("00000000 55303132"), "length 0, not 1 to 30000): 00 00 00 00 55 30 31 32"},
        {Hex("31750000 55303132"), "length 30001"},
        {Hex("01000001 55303132"), "length 16777217"},
        {Hex("04000000 55303133"), "no \"U012\" at its end): 04 00 00 00 55 30 31 33"},
        {Frame({0xA0, 0, 2, 3}), "length byte 0: a0 00"},
        {Frame(Bytes{0xA0, 3, 2, 3} + kShortPacket), "length byte 3: a0 03"},
    };
    for (const auto& [bytes, violation] : cases) {
        // What follows is not read any more.
        EXPECT_THAT(Read(Frame(kShortPacket) + bytes + kShortPacket + Frame(kShortPacket), {}),
                    AllOf(StartsWith("98 04 07 a3\nbad frame header"), HasSubstr(violation)));
    }
}

TEST(PacketStream, ASyncReplyIsFoundInsideAnything) {
    const Bytes reply = SyncReply(9);
    for (const Bytes& before : {Bytes{}, Bytes{0xA0}, Bytes{0xA0, 200, 1}, Bytes{0, 0, 0, 0, 0},
                                Bytes(40, 0xB8), kWrong, Part(reply, 0, 25)}) {
        EXPECT_EQ(Read(Frame(before + reply + kShortPacket), {}, true),
                  ToHex(reply) + "\n" + kShortText);
    }
    // Only one that is right in every byte but its sequence numbers and the low bits of its type.
    for (const std::size_t at : {1U, 3U, 4U, 6U, 25U}) {
        Bytes wrong = reply;
        ++wrong[at];
        EXPECT_EQ(Read(Frame(Bytes{0xA0, 100} + wrong + kShortPacket), {}, true), "") << at;
    }
    // In step, such bytes are data like any other.
    const Bytes data = Tunnel(1, reply, 0);
    EXPECT_EQ(Read(Frame(data), {}), ToHex(data) + "\n");
}

TEST(Requests, AreWhatTheUnitExpects) {
    using vexa::ControllerCommand;
    const Bytes three = {1, 2, 3};
    const std::pair<Packet, const char*> cases[] = {
        {BuildInitialSync(7),
         "40 19 07 90 1a 05 4a 06 49 07 48 08 47 09 46 0a 45 0b 44 0c 43 0d 42 0e 41"},
        {*BuildMultiplexerCommand(2, 5, three), "40 08 02 55 05 01 02 03"},
        {*BuildTunnel(0xA1B2C3D4, 0xFF, three), "60 0b ff 5a d4 c3 b2 a1 01 02 03"},
        {BuildControllerCommand(0x102, 4, ControllerCommand::kReopenController,
                                ReopenArguments(0x102, true)),
         "60 12 04 01 02 01 00 00 40 0a 04 c4 72 02 01 00 00 01"},
        {BuildControllerCommand(1, 5, ControllerCommand::kOpenChild, OpenArguments(0x1001, "Mic")),
         "60 16 05 5e 01 00 00 00 40 0e 05 f1 70 01 10 00 00 04 4d 69 63 00"},
    };
    EXPECT_EQ(DescribePacket(Direction::kToUnit, {}), "fragment of 0 bytes");
    for (const auto& [packet, expected] : cases) EXPECT_EQ(ToHex(packet.Bytes()), expected);
    // They are as long as a packet can be and no longer.
    EXPECT_EQ(BuildTunnel(1, 0, Bytes(247))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildTunnel(1, 0, Bytes(248)));
    EXPECT_EQ(BuildMultiplexerCommand(0, 1, Bytes(250))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildMultiplexerCommand(0, 1, Bytes(251)));
    EXPECT_EQ(OpenArguments(2, std::string(220, 'x')), OpenArguments(2, std::string(219, 'x')));
    EXPECT_EQ(
        BuildControllerCommand(1, 0, ControllerCommand::kOpenChild, Bytes(250)).Bytes().size(),
        255U);
}

}  // namespace
}  // namespace vexahost
