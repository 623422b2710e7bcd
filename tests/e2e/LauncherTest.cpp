// The real binary under launchers that are not kind to it.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

// A launcher that blocks every signal, or closes the standard descriptors, does no harm.
TEST(StartUp, SurvivesItsLauncher) {
    {
        RunningUnit unit("{}", {"env", "--block-signal", Program("VEXADevMgr")});
        { Host host(unit); }
        unit.AwaitLine("USB gadget cable is unplugged.");
        unit.Signal(SIGHUP);
        EXPECT_EQ(unit.Wait(), 0);
        EXPECT_EQ(unit.Printed().back(), "VEXADevMgr(130) : VEXADevMgr is shutting down.");
        EXPECT_EQ(unit.Calls().back(), "VEXA_Uninit(1) = 0");
    }
    RunningUnit unit("{}", {"sh", "-c", R"(exec "$0" <&- >&- 2>&-)", Program("VEXADevMgr")});
    EXPECT_EQ(
        testkit::RunToEnd({Program("vexa-host"), "--dir", unit.Folder(), "sync", "--wait", "20s"})
            .status,
        0);
    for (const char* number : {"0", "1", "2"}) {
        const auto file = "/proc/" + std::to_string(unit.ServiceId()) + "/fd/" + number;
        EXPECT_EQ(std::filesystem::read_symlink(file), "/dev/null");
    }
    EXPECT_EQ(unit.Stop(), 0);
}

}  // namespace
}  // namespace vexa::test
