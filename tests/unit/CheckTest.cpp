// vexa-unit check, on units that are as they should be and on others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/Tool.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// The lines of a check that finds something.
std::vector<std::string> Findings(std::vector<std::string> options) {
    options.insert(options.begin(), "check");
    const auto [status, output] = RunTool(options);
    EXPECT_EQ(status, 1);
    std::vector<std::string> findings;
    for (const auto& line : testkit::SplitLines(output)) {
        // An emulator has a word of its own on a crash.
        if (!line.starts_with("ok ") && !line.starts_with("qemu: ")) findings.push_back(line);
    }
    return findings;
}

TEST(Check, FindsNothingAgainstAVirtualUnit) {
    const auto [status, output] =
        RunTool({"run", "--", VEXA_UNIT_PROGRAM, "check", "--sessions", "--device", "Gyroscope"});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(output, HasSubstr("2 attached of type 8: Accelerometer, Gyroscope\n"));
    EXPECT_THAT(output, HasSubstr("\"Gyroscope\" is of type 8\n"));
    EXPECT_THAT(output, HasSubstr("the session with FGEN begins and ends\n"));
    EXPECT_THAT(output, HasSubstr("/dev/zt-usb: the cable is out\n"));
    EXPECT_THAT(output, Not(HasSubstr("odd  ")));
}

TEST(Check, SaysWhatIsMissingOrNoLibraryOrNode) {
    EXPECT_THAT(
        Findings({"--vexa", INCOMPLETE_LIBRARY, "--vexcri", "/dev/null", "--node", "/dev/null"}),
        ElementsAre("missing  libVEXA.so: the function VEXA_Device_Open",
                    "missing  libVEXA.so: the function VEXA_Device_Close",
                    "missing  libVEXA.so: 2 of 15 functions of VEXA.h; the others were not called",
                    HasSubstr("missing  libvexcri.so: /dev/null: "),
                    HasSubstr("odd      /dev/null: does not tell the cable's state"),
                    "See the lines that begin with missing or odd."));
}

TEST(Check, SaysWhatALibraryDoesThatTheServiceCannotWorkWith) {
    auto findings = Findings({"--vexa", ODD_LIBRARY, "--device", "Clock"});
    findings.resize(10);  // the other library and the node are not there
    EXPECT_THAT(
        findings,
        ElementsAre(
            "odd      VEXA_GetDLLVersion gave 5, not 0",
            "odd      VEXA_SearchForDevices of type 2 gave -9, not 0",
            "odd      VEXA_OpenDeviceListSnapshot of type 3 gave no snapshot",
            "odd      \"Tilt\" is listed as of type 4, but looked up it is of type 8",
            "odd      VEXA_DeviceListSnapshot_GetNthEntry of type 9, entry 0 writes beyond the 220 "
            "bytes that it was given",
            "odd      VEXA_DeviceListSnapshot_GetNthEntry of type 11, entry 0 gives a name that "
            "does not end",
            "missing  an acquisition board, type 5: no host can take the hardware over",
            "odd      VEXA_GetDeviceTypeFromDeviceName: an unknown name is of type 8; a host could "
            "open it",
            "odd      \"Clock\" is of type 7, which no host can open",
            "odd      libVEXA.so: crashed (Aborted) in VEXA_Uninit"));
}

}  // namespace
}  // namespace vexa::unit
