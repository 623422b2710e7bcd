// The host's byte stream: packets, checksums, initial sync, and the multiplexer's own replies, as
// far as the model in tests/model does not show it.

#include "mux/MuxTest.h"

namespace vexa {
namespace {

using namespace test;

constexpr char kSyncReply[] =
    "b8 1a 00 2f 1a 4d 55 aa 56 a9 57 a8 58 a7 59 a6 5a a5 5b a4 5c a3 5d a2 5e a1";

using PacketStream = MuxTest;

TEST_F(PacketStream, RecognisesOnlyExactSyncs) {
    const auto isSync = [&](const Bytes& bytes) {
        const std::string text = Printed([&] {
            Pass(bytes);
            for (int i = 0; i < 8; ++i) Pass(Bytes(16, 0));  // whatever its length byte says
        });
        link.Take();
        return text.find("- INIT:") != std::string::npos;
    };
    for (const std::size_t position : {0U, 1U, 2U, 3U, 4U, 5U, 14U, 23U, 24U}) {
        Bytes wrong = Hex(kSync);
        wrong[position] = static_cast<std::uint8_t>(wrong[position] ^ 0x80U);
        EXPECT_FALSE(isSync(wrong)) << position;
        wrong = Hex(kSync);
        wrong[position] = static_cast<std::uint8_t>(wrong[position] ^ 0x01U);
        const bool mayDiffer = position == 0 || position == 2;
        EXPECT_EQ(isSync(position == 3 ? wrong : Sealed(wrong)), mayDiffer) << position;
    }
    Bytes other = Hex(kSync);
    other[0] = 0x5F;
    Printed([&] { Pass(Sealed(other)); });
    EXPECT_EQ(link.Take(), kSyncReply) << "any type of the class";
}

TEST_F(PacketStream, ChecksEveryLength) {
    for (int length = 0; length <= 255; ++length) {
        SCOPED_TRACE(length);
        Bytes packet(static_cast<std::size_t>(std::max(length, 4)), 0x21);
        packet[0] = 0x40;
        packet[1] = static_cast<std::uint8_t>(length);
        packet = Sealed(packet);
        const std::string text = Printed([&] { Pass(packet); });
        if (length < 4) {
            EXPECT_EQ(text, "Input from Host - BAD CHECKSUM: " + ToHex(packet) + "\n");
            EXPECT_EQ(link.Take(), "");
        } else {
            EXPECT_EQ(text, "");
            EXPECT_EQ(link.TakeBytes().size(), 7U);
        }
        packet[3] ^= 1U;
        EXPECT_EQ(Printed([&] { Pass(packet); }),
                  "Input from Host - BAD CHECKSUM: " + ToHex(packet) + "\n");
        EXPECT_EQ(link.Take(), "");
    }
}

TEST_F(PacketStream, DropsWhatComesBehindAWaitingPacketButASync) {
    HostPacketStream stream;
    const Bytes packet = Sealed(Hex("80 05 01 00 33"));
    const Bytes sync = Hex(kSync);
    link.HostSends(packet + Hex("77") + sync + packet);
    EXPECT_FALSE(stream.ParsePass());
    std::string expected = "Input from Host - IGNORED: 77\n";
    for (std::size_t i = 0; i < 24; ++i) {
        expected += "Input from Host - IGNORED: " + ToHex({&sync[i], 1}) + "\n";
    }
    EXPECT_EQ(Printed([&] { EXPECT_TRUE(stream.ParsePass()); }),
              expected + "Input from Host - INIT: " + kSync + "\n");
    EXPECT_EQ(ToHex(stream.Packet().first<25>()), kSync);
    EXPECT_EQ(HostLink_BytesAvailable(), packet.size()) << "a sync ends the pass";
}

}  // namespace
}  // namespace vexa
