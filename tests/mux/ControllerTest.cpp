// The control channel and the DAQ, as far as the model in tests/model does not show it.

#include <thread>

#include "mux/MuxTest.h"
#include "protocol/Packet.h"

namespace vexa {
namespace {

using namespace test;
using Calls = std::vector<std::string>;

using Controller = MuxTest;

TEST_F(Controller, OpensUnderEitherCommand) {
    const VirtualTime time;
    const Bytes byName = Hex("44 33 22 11 0b") + Hex("43 6f 6e 74 72 6f 6c 6c 65 72 00");
    EXPECT_EQ(Reply(ToController(0x70, byName)), ControllerReply(0, 0x98, 0x70, 0));
    EXPECT_TRUE(daq.IsOpen()) << "by name the DAQ link is opened, too";
    EXPECT_EQ(Reply(OpenController(false)), ControllerReply(0, 0x98, 0x72, 0));
    EXPECT_FALSE(daq.IsOpen());
    EXPECT_EQ(Reply(OpenController(true)), ControllerReply(0, 0x98, 0x72, 0));
    EXPECT_TRUE(daq.IsOpen());

    script.attached.erase(5);
    mux.DisconnectCleanUp();
    mux.MarkConnected();
    EXPECT_EQ(Reply(ToController(0x70, byName)), ControllerReply(0, 0x9C, 0x70, 59));
    std::uint8_t sequence = 1;
    Bytes longer = OpenChild(1, "Controller");
    longer[17] = 12;
    for (const Bytes& other : {OpenChild(1, "Controlle"), OpenChild(1, "ControlleR"),
                               OpenChild(1, "Controller2"), Sealed(longer)}) {
        EXPECT_EQ(Reply(other), ControllerReply(sequence++, 0x9C, 0x70, 54))
            << "another name is a child's";
    }
}

// A take-over goes on after a disconnect and opens the DAQ link without a controller entry.
TEST_F(Controller, ClosesTheDaqLinkAlsoWithoutAnEntry) {
    for (const bool reopens : {false, true}) {
        OpenControllerFirst();
        script.answers = {{1, 1}, {2, 1}, {3, 1}, {4, 1}};
        Pass(ToController(0x74, {}));
        mux.DisconnectCleanUp();
        mux.MarkConnected();
        Reply({});
        EXPECT_TRUE(daq.IsOpen());
        if (reopens) {
            Reply(OpenController(false));
        } else {
            mux.DisconnectCleanUp();
            mux.MarkConnected();
        }
        EXPECT_FALSE(daq.IsOpen()) << reopens;
    }
}

TEST_F(Controller, ForwardsBetweenHostAndDaq) {
    OpenControllerFirst(true);
    script.writes.clear();
    const std::uint32_t board = script.streams.begin()->first;
    Printed([&] { Pass(Hex(kSync)); });
    EXPECT_EQ(script.writes, Calls{std::to_string(board) + ": " + kSync})
        << "with the link open also the sync is the board's";

    EXPECT_TRUE(daq.IsOpen());
    const Bytes good = Sealed(Hex("a0 0a 01 00 01 02 03 04 05 06"));
    Bytes bad = good;
    bad[3] ^= 0xFFU;
    SetTraceThreshold(1);
    const std::string text = Printed([&] {
        script.Send(board, good + Bytes(bad.begin(), bad.begin() + 2));
        script.Send(board, Bytes(bad.begin() + 2, bad.end()));
        for (int i = 0; i < 12; ++i) script.Send(board, Hex("a0 03 00 00"));
    });
    SetTraceThreshold(100);
    std::string expected =
        "DAQIO(239) : DAQ->Host good blob: a0 0a 01 c0 01 02 03 04\n"
        "DAQIO(245) : DAQ->Host blob checksum err: a0 0a 01 3f 01 02 03 04\n";
    for (int i = 0; i < 9; ++i) {
        expected += "DAQIO(245) : DAQ->Host blob checksum err: a0 03 00 00 00 00 00 00\n";
    }
    EXPECT_EQ(text, expected) << "the first ten errors";
    EXPECT_EQ(DAQIO::ReadCallback(good.data(), 0, &daq), 0);
    EXPECT_EQ(DAQIO::ReadCallback(good.data(), 3, nullptr), 0);
    std::string sent = ToHex(good + bad);
    for (int i = 0; i < 12; ++i) sent += " a0 03 00";
    EXPECT_EQ(link.Take().substr(ToHex(DaqSyncAnswer()).size() + 1), sent)
        << "the board's answer to the sync, then all as it came";
    script.writesSucceed = false;
    EXPECT_EQ(daq.Write(good.data(), 10), 0);
    script.writesSucceed = true;
    EXPECT_EQ(daq.Write(good.data(), 10), 10);
    daq.Close();
    EXPECT_EQ(daq.Write(good.data(), 10), 0);

    SetTraceThreshold(1);
    EXPECT_EQ(Printed([&] {
                  EXPECT_TRUE(daq.Open());
                  EXPECT_TRUE(daq.Open()) << "open already";
                  script.Send(script.streams.begin()->first, Hex("a0 03 00 00"));
              }),
              "DAQIO(113) : DAQ successfully replied to initial sync VEXA_CMD_ID_INIT.\n"
              "DAQIO(239) : DAQ->Host good blob: 00 00 00 00 00 00 00 00\n"
              "DAQIO(245) : DAQ->Host blob checksum err: a0 03 00 00 00 00 00 00\n")
        << "counted anew, and the last good header gone";
    SetTraceThreshold(100);
    link.Take();
    daq.Close();
    EXPECT_EQ(Printed([] {
                  const Bytes bytes = Hex("01 a0");
                  DAQIO::DumpInput(bytes.data(), 2, "x");
                  DAQIO::DumpOutput(bytes.data(), -1, "y");
              }),
              "DAQ Input - x: 01 a0\nDAQ Output - y:\n");
}

TEST_F(Controller, SyncsWithTheBoardOnlyOnItsRightAnswer) {
    const Bytes packet = Sealed(Hex("a0 05 01 00 11"));
    const Bytes reopen = OpenController(true);
    // Noise and near misses before it, the first packet behind it in the same block.
    Bytes before(300, 0xA1);
    for (const std::size_t position : {0U, 1U, 3U, 4U, 5U, 6U, 25U}) {
        Bytes wrong = DaqSyncAnswer();
        wrong[position] ^= 0x40U;
        const bool canBeSealed = position != kLengthOffset && position != kChecksumOffset;
        before = before + (canBeSealed ? Sealed(wrong) : wrong);
    }
    script.daqAnswer = before + DaqSyncAnswer() + packet;
    EXPECT_EQ(Reply(reopen), ToHex(packet) + " " + ControllerReply(0, 0x98, 0x72, 0));

    const VirtualTime time;
    script.deviceOpens = false;
    script.daqAnswer = DaqSyncAnswer();
    script.daqAnswer[5] = 78;
    script.daqAnswer = Sealed(script.daqAnswer);
    SetTraceThreshold(1);
    std::string reply;
    EXPECT_EQ(Printed([&] { reply = Reply(reopen); }),
              "DAQIO(144) : Init during DAQ close failed.\n"
              "DAQIO(110) : DAQ failed to reply to initial sync VEXA_CMD_ID_INIT.\n");
    SetTraceThreshold(100);
    EXPECT_EQ(reply, ControllerReply(0, 0x9C, 0x72, 59));
    EXPECT_TRUE(script.streams.empty());
    EXPECT_EQ(VirtualTime::TakeSleeps(), std::vector<std::int64_t>(51, 10000)) << "500 ms and one";
    script.TakeCalls();
    script.writesSucceed = false;
    EXPECT_EQ(Reply(reopen), ControllerReply(0, 0x9C, 0x72, 59)) << "the sync was not sent";
    EXPECT_EQ(
        script.TakeCalls(),
        (Calls{"VEXA_SearchForDevices(9, 5, 2, 0)", "VEXA_CloseDeviceListSnapshot(105)",
               "VEXA_Device_Stream_Open(board, mode 4) = " + std::to_string(script.lastHandle),
               "VEXA_Device_Stream_Close(" + std::to_string(script.lastHandle) + ")"}));
}

TEST_F(Controller, CountsTheComingsAndGoingsThatATransportReports) {
    std::uint32_t generation = 77;
    const auto report = [&](bool connected) {
        SetHostConnected(connected, &generation);
        return generation;
    };
    EXPECT_EQ(report(true), 1U);
    EXPECT_EQ(report(true), 1U) << "no news";
    EXPECT_EQ(report(false), 2U);
    SetHostConnected(true, nullptr);
    EXPECT_EQ(mux.Children().ConnectionGeneration(1), 3U) << "the count that the main loop follows";

    const VirtualTime time;
    if (!mux.Children().Lock(0)) FAIL();
    const std::string text = Printed([&] { std::thread([&] { report(false); }).join(); });
    mux.Children().Unlock();
    EXPECT_EQ(text, "Trying to lock mutex failed\n");
    EXPECT_EQ(generation, 0U);
    HostVEXMuxController_Destroy();
    generation = 77;
    SetHostConnected(true, &generation);
    EXPECT_EQ(generation, 0U) << "nobody to report to";
    HostVEXMuxController_Init(mux.Children());
}

}  // namespace
}  // namespace vexa
