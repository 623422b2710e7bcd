// Start-ups and ends of the real binary, line for line.

#include <gtest/gtest.h>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

TEST(StartUp, WithoutANodePrintsItsErrorAndEndsInOrder) {
    RunningUnit unit(R"({"node": {"present": false}})");
    EXPECT_EQ(unit.Wait(), 0);
    EXPECT_EQ(unit.Printed(),
              (Lines{"VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.",
                     "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version 03.12 .",
                     "GServerUSBBulkDevice_Linux(312) : Error opening device with id /dev/zt-usb",
                     "VEXADevMgr(128) : ERROR initializing VEXADevMgr.", "",
                     "VEXADevMgr(130) : VEXADevMgr is shutting down."}));
    EXPECT_EQ(unit.Journal(),
              (Lines{"VEXA_Init() = 1", "VEXA_GetDLLVersion(1) = 0  # 3.12",
                     "VEXA_Diags_SetDebugTraceThreshold(1, 1) = 0", R"(criInit("DAQ", 1) = 1)",
                     R"(criInit("SPLASH", 1) = 1)", R"(criInit("FGEN", 1) = 1)",
                     R"(criTerminate("DAQ", 1) = 1)", R"(criTerminate("SPLASH", 1) = 1)",
                     R"(criTerminate("FGEN", 1) = 1)", "VEXA_Uninit(1) = 0"}));
}

TEST(StartUp, WithoutTheLibraryOrASessionSaysSo) {
    RunningUnit unit(R"({"library": {"initFails": true, "version": [12, 3]},
                         "applications": {"SPLASH": {"initFails": true}}})");
    EXPECT_EQ(unit.Wait(), 0);
    const Lines lines = unit.Printed();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[2], "vexAppSession(36) : Initiator call to criInit failed.");
    EXPECT_EQ(lines[3], "VEXADevMgr(128) : ERROR initializing VEXADevMgr.");
    EXPECT_EQ(lines[5], "VEXADevMgr(130) : VEXADevMgr is shutting down.");
}

TEST(StartUp, EndsOnSigtermWithAHostAndStreamsOpen) {
    RunningUnit unit(R"({"devices": [{"name": "Fast", "type": 8, "rate": 500}],
                         "daq": {"measurementRate": 200}})");
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
    EXPECT_EQ(unit.Journal().back(), "VEXA_Uninit(1) = 0");
}

TEST(StartUp, EndsOnSigtermAlthoughTheHostTakesNothing) {
    RunningUnit unit(
        R"({"devices": [{"name": "Fast", "type": 8, "rate": 2000, "blockSize": 240}]})");
    Host host(unit);
    host.Send(OpenController(false));
    host.Send(OpenChild(5, "Fast"));
    host.AwaitFullWindow();
    EXPECT_EQ(unit.Stop(), 0);
    EXPECT_EQ(unit.Printed().back(), "VEXADevMgr(130) : VEXADevMgr is shutting down.");
}

}  // namespace
}  // namespace vexa::test
