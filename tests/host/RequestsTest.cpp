// Every packet that a host sends, byte for byte, and what is said of packets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "FakeService.h"
#include "vexahost/Describe.h"
#include "vexahost/Requests.h"

namespace vexahost {
namespace {

using testing::ElementsAreArray;

TEST(Requests, AreWhatTheUnitExpects) {
    struct Case {
        Packet packet;
        Bytes expected;
        const char* words;
    };
    const Bytes three = {1, 2, 3};
    const Case cases[] = {
        {BuildInitialSync(7),
         {0x40, 25,   7,    0x90, 26,   0x05, 0x4A, 0x06, 0x49, 0x07, 0x48, 0x08, 0x47,
          0x09, 0x46, 0x0A, 0x45, 0x0B, 0x44, 0x0C, 0x43, 0x0D, 0x42, 0x0E, 0x41},
         "initial sync"},
        {*BuildMultiplexerCommand(2, 5, three),
         {0x40, 8, 2, 0x55, 5, 1, 2, 3},
         "multiplexer command 0x5"},
        {*BuildTunnel(0xA1B2C3D4, 0xFF, three),
         {0x60, 11, 0xFF, 0x5A, 0xD4, 0xC3, 0xB2, 0xA1, 1, 2, 3},
         "3 bytes to child 0xA1B2C3D4"},
        {BuildOpenController(1, 3),
         {0x60, 29, 3,  0x71, 1,   0,   0,   0,   0x40, 21,  3,   0xF8, 0x70, 1, 0,
          0,    0,  11, 'C',  'o', 'n', 't', 'r', 'o',  'l', 'l', 'e',  'r',  0},
         "open controller 0x1, with DAQ, by name"},
        {BuildReopenController(0x102, false, 4),
         {0x60, 18, 4, 0xFF, 2, 1, 0, 0, 0x40, 10, 4, 0xC3, 0x72, 2, 1, 0, 0, 0},
         "open controller 0x102, without DAQ"},
        {BuildReopenController(1, true, 4),
         {0x60, 18, 4, 0xFB, 1, 0, 0, 0, 0x40, 10, 4, 0xC2, 0x72, 1, 0, 0, 0, 1},
         "open controller 0x1, with DAQ"},
        {*BuildOpenChild(1, 5, 0x1001, "Mic"),
         {0x60, 22,   5,    0x5E, 1, 0, 0, 0,   0x40, 14,  5,
          0xF1, 0x70, 0x01, 0x10, 0, 0, 4, 'M', 'i',  'c', 0},
         "open child 0x1001 \"Mic\""},
        {BuildCloseChild(1, 6, 0x1001),
         {0x60, 17, 6, 0x1A, 1, 0, 0, 0, 0x40, 9, 6, 0xD1, 0x71, 1, 0x10, 0, 0},
         "close child 0x1001"},
        {BuildCloseChild(1, 6, 1),
         {0x60, 17, 6, 0xFA, 1, 0, 0, 0, 0x40, 9, 6, 0xC1, 0x71, 1, 0, 0, 0},
         "close controller 0x1"},
        {BuildQueryDaqApplication(1, 8),
         {0x60, 13, 8, 0xF6, 1, 0, 0, 0, 0x40, 5, 8, 0xC0, 0x73},
         "query DAQ application"},
        {BuildTakeDaqOver(1, 8),
         {0x60, 13, 8, 0xF8, 1, 0, 0, 0, 0x40, 5, 8, 0xC1, 0x74},
         "take DAQ over"},
    };
    for (const Case& request : cases) {
        EXPECT_THAT(request.packet.Bytes(), ElementsAreArray(request.expected)) << request.words;
        EXPECT_EQ(DescribePacket(Direction::kToUnit, request.packet.Bytes()), request.words);
    }
}

TEST(Requests, AreAsLongAsAPacketCanBeAndNoLonger) {
    EXPECT_EQ(BuildTunnel(1, 0, Bytes(247))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildTunnel(1, 0, Bytes(248)));
    EXPECT_EQ(BuildMultiplexerCommand(0, 1, Bytes(250))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildMultiplexerCommand(0, 1, Bytes(251)));
    EXPECT_EQ(BuildPacket(0x40, 0, Bytes(251))->Bytes().size(), 255U);
    EXPECT_FALSE(BuildPacket(0x40, 0, Bytes(252)));
    EXPECT_EQ(BuildOpenChild(1, 0, 2, std::string(219, 'x'))->Bytes()[17], 220);
    EXPECT_FALSE(BuildOpenChild(1, 0, 2, std::string(220, 'x')));
}

TEST(Requests, ContentThatReopensTheControllerIsRecognised) {
    const auto inner = [](const Packet& packet) {
        return Bytes(packet.Bytes().begin() + vexa::kTunnelHeaderSize, packet.Bytes().end());
    };
    EXPECT_TRUE(ReopensController(Bytes{0, 0, 0, 0, 0x72}));
    EXPECT_TRUE(ReopensController(inner(BuildOpenController(1, 0))));
    EXPECT_FALSE(ReopensController(Bytes{0, 0, 0, 0x72}));
    EXPECT_FALSE(ReopensController(inner(*BuildOpenChild(1, 0, 2, "Controllex"))));
    EXPECT_FALSE(ReopensController(inner(*BuildOpenChild(1, 0, 2, "Controllers"))));
    EXPECT_FALSE(ReopensController(inner(BuildTakeDaqOver(1, 0))));
}

TEST(Describe, SaysWhatTheUnitAnswers) {
    const std::pair<Bytes, const char*> cases[] = {
        {SyncReply(3, 9), "initial-sync reply (request 9)"},
        {Sealed({0x9C, 7, 0, 0, 5, 2, 48}),
         "multiplexer command 0x5 (request 2): error 48, the DAQ link is closed"},
        {Sealed({0xB8, 7, 0, 0, 5, 2, 0}), "DAQ: command 0x5 (request 2): done"},
        {ControllerReply(1, 0, 0x9C, 0x70, 6, 50),
         "open child (request 6): error 50, ten children are open already"},
        {ControllerReply(1, 0, 0x9C, 0x73, 6, 50),
         "query DAQ application (request 6): error 50, the session with the DAQ application has "
         "failed"},
        {ControllerReply(1, 0, 0x98, 0x73, 6, 1), "query DAQ application (request 6): result 1"},
        {ControllerReply(1, 0, 0x9C, 0x42, 6, 99),
         "command 0x42 (request 6): error 99, unknown error"},
        {Sealed({0x60, 10, 0, 0, 1, 0x10, 0, 0, 5, 6}), "2 bytes from child 0x1001"},
        {{0xA0, 6, 0, 0, 1, 2}, "DAQ packet of 6 bytes (checksum WRONG)"},
        {{0xA0, 9, 0, 0}, "DAQ packet of 4 bytes (length byte says 9)"},
        {{0x60, 5, 0}, "fragment of 3 bytes"},
        {{}, "fragment of 0 bytes"},
    };
    for (const auto& [packet, words] : cases) {
        EXPECT_EQ(DescribePacket(Direction::kFromUnit, packet), words);
    }
}

}  // namespace
}  // namespace vexahost
