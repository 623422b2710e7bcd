// The real binary: start-ups, whole host sessions and ends, byte for byte and line for line.

#include <gtest/gtest.h>

#include <csignal>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

TEST(Session, GivesTheBytesAndLinesOfEachExchange) {
    const std::string sync = ToHex(InitialSync());
    const Bytes report = Hex("01 02 03 04 05 06 07 08");
    Bytes damaged = ToController(0x73, {});
    damaged[3] ^= 0x40U;
    const Bytes orphan = Tunnel(99, {1});

    RunningUnit unit(kQuietUnit);
    {
        Host host(unit);
        EXPECT_EQ(host.Ask(Hex("60 ff 01") + InitialSync()),
                  "b8 1a 00 e9 1a 07 55 aa 56 a9 57 a8 58 a7 59 a6 5a a5 5b a4 5c a3 5d a2 5e a1");
        EXPECT_EQ(host.Ask(Sealed(Hex("40 06 07 00 33 44"))), "9c 07 01 0e 33 07 30");

        EXPECT_EQ(host.Ask(OpenController(false)), ControllerReply(0, 0x98, 0x72, 0));
        EXPECT_EQ(host.Ask(ToController(0x75, {})), ControllerReply(1, 0x9C, 0x75, 49));
        EXPECT_EQ(host.Ask(ToController(0x73, {})), ControllerReply(2, 0x98, 0x73, 1));
        EXPECT_EQ(host.Ask(ToController(0x74, {})), ControllerReply(3, 0x98, 0x74, 0));
        EXPECT_EQ(host.Ask(Sealed(Hex("40 06 07 00 33 44"))), "b8 07 01 fa 33 07 00")
            << "with its link open the DAQ answers";

        EXPECT_EQ(host.Ask(OpenChild(5, "Camera")), ControllerReply(4, 0x9C, 0x70, 54));
        EXPECT_EQ(host.Ask(OpenChild(5, "Stream")), ControllerReply(5, 0x98, 0x70, 0));
        EXPECT_EQ(host.Ask(OpenChild(6, "Hid")), ControllerReply(6, 0x98, 0x70, 0));
        EXPECT_EQ(host.Ask(Tunnel(5, Bytes(245, 0x5A))), ChildData(5, 0, Bytes(245, 0x5A)));
        host.Send(Tunnel(5, Bytes(246, 0x5A)) + Tunnel(5, Bytes(247, 0x5A)));
        EXPECT_EQ(host.Ask(Tunnel(5, {1})), ChildData(5, 1, {1})) << "the two were refused";
        host.Send(Tunnel(6, report));
        EXPECT_EQ(host.Ask(Tunnel(6, Hex("40 00 00 00 00 00 00 09"))),
                  ChildData(6, 0, Hex("80 02 00 00 00 00 00 09")))
            << "reports pass only from the init response on";
        EXPECT_EQ(host.Ask(Tunnel(6, report)), ChildData(6, 1, report));

        host.Send(damaged + orphan);
        EXPECT_EQ(host.Ask(CloseChild(99)), ControllerReply(7, 0x9C, 0x70, 54));
        EXPECT_EQ(host.Ask(CloseChild(5)), ControllerReply(8, 0x98, 0x71, 0));
        EXPECT_EQ(host.Ask(CloseChild(kControllerId)), ControllerReply(9, 0x98, 0x71, 0));
    }
    unit.AwaitLine("USB gadget cable is unplugged.");
    EXPECT_EQ(unit.Stop(), 0);
    EXPECT_EQ(unit.Printed(),
              (Lines{"VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.",
                     "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version 03.12 .",
                     "GServerUSBBulkDevice_Linux(490) : USB gadget cable is plugged in.",
                     "Input from Host - PRE_INIT: 60 ff 01 " + sync.substr(0, sync.size() - 3),
                     "Input from Host - INIT: " + sync,
                     "DAQIO(113) : DAQ successfully replied to initial sync VEXA_CMD_ID_INIT.",
                     "VEXADevMgr TunneledDeviceReadCallback numBytes = 246 ", "Tarn Init Response ",
                     "Input from Host - BAD CHECKSUM: " + ToHex(damaged),
                     "Input from Host - Discarding orphaned tunnel packet.: " + ToHex(orphan),
                     "DAQIO(141) : Init during DAQ close succeeded.",
                     "GServerUSBBulkDevice_Linux(490) : USB gadget cable is unplugged.",
                     "VEXADevMgr(130) : VEXADevMgr is shutting down."}));
    EXPECT_EQ(unit.Calls("criCommand"),
              (Lines{R"(criCommand("DAQ", 3, 1000) = 1)", R"(criCommand("DAQ", 3, 1000) = 1)",
                     R"(criCommand("DAQ", 2, 10000) = 1)", R"(criCommand("SPLASH", 1, 1000) = 1)",
                     R"(criCommand("FGEN", 4, 1000) = 1)", R"(criCommand("DAQ", 1, 1000) = 1)",
                     R"(criCommand("SPLASH", 2, 1000) = 1)"}));
}

TEST(StartUp, WithoutANodePrintsItsErrorAndEndsInOrder) {
    RunningUnit unit(R"({"node": {"present": false}})");
    EXPECT_EQ(unit.Wait(), 0);
    EXPECT_EQ(unit.Printed(),
              (Lines{"VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.",
                     "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version 03.12 .",
                     "GServerUSBBulkDevice_Linux(312) : Error opening device with id /dev/zt-usb",
                     "VEXADevMgr(128) : ERROR initializing VEXADevMgr.", "",
                     "VEXADevMgr(130) : VEXADevMgr is shutting down."}));
    EXPECT_EQ(unit.Calls(),
              (Lines{"VEXA_Init() = 1", "VEXA_GetDLLVersion(1) = 0  # 3.12",
                     "VEXA_Diags_SetDebugTraceThreshold(1, 1) = 0", R"(criInit("DAQ", 1) = 1)",
                     R"(criInit("SPLASH", 1) = 1)", R"(criInit("FGEN", 1) = 1)",
                     R"(criTerminate("DAQ", 1) = 1)", R"(criTerminate("SPLASH", 1) = 1)",
                     R"(criTerminate("FGEN", 1) = 1)", "VEXA_Uninit(1) = 0"}));
}

TEST(StartUp, EndsOnSigtermWithAHostAndStreamsOpen) {
    RunningUnit unit(R"({"devices": [{"name": "Fast", "type": 8, "rate": 500}],
                         "daq": {"measurementRate": 200, "syncDelayMs": 0}})");
    Host host(unit);
    host.Ask(InitialSync());
    host.Send(OpenController(true));
    host.Send(OpenChild(5, "Fast"));
    while (host.Receive().find("05 00 00 00") == std::string::npos) {
    }
    EXPECT_EQ(unit.Stop(), 0);
    const Lines lines = unit.Printed();
    EXPECT_EQ(lines.at(lines.size() - 2), "VEXADevMgr(130) : VEXADevMgr is shutting down.");
    EXPECT_EQ(lines.back(), "DAQIO(141) : Init during DAQ close succeeded.");
    EXPECT_EQ(unit.Calls().back(), "VEXA_Uninit(1) = 0");
}

// A service whose host takes nothing ends with its writer interrupted; one whose output is stuck as
// well ends at the second signal.
TEST(StartUp, EndsAlthoughTheHostReadsNothing) {
    RunningUnit unit(
        R"({"devices": [{"name": "Fast", "type": 8, "rate": 2000, "blockSize": 240}]})");
    Host host(unit);
    host.Send(OpenController(false));
    host.Send(OpenChild(5, "Fast"));
    host.AwaitFullWindow();
    EXPECT_EQ(unit.Stop(), 0);
    EXPECT_EQ(unit.Printed().back(), "VEXADevMgr(130) : VEXADevMgr is shutting down.");
}

TEST(StartUp, ASecondSignalEndsItAtOnce) {
    RunningUnit unit(R"({"faults": [{"call": "VEXA_Uninit", "action": "block", "ms": 60000}]})");
    { Host host(unit); }
    unit.Signal(SIGTERM);
    unit.AwaitLine("VEXADevMgr(130) : VEXADevMgr is shutting down.");
    unit.Signal(SIGINT);
    EXPECT_EQ(unit.Wait(), 128 + SIGINT);
}

}  // namespace
}  // namespace vexa::test
