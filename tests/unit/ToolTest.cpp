// vexa-unit as its users start it: run, ctl, scenarios, check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "testkit/ChildProcess.h"
#include "unit/UnitUnderTest.h"

namespace vexa::unit {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using testkit::ChildProcess;

[[nodiscard]] testkit::ProcessCall ToolCall(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VEXA_UNIT_PROGRAM);
    return {.command = std::move(arguments), .withoutInput = true};
}

// Runs it to its end.
[[nodiscard]] testkit::Finished RunTool(std::vector<std::string> arguments) {
    return testkit::RunToEnd(ToolCall(std::move(arguments)).command);
}

class RunCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string path = ::testing::TempDir() + "/run-XXXXXX";
        ASSERT_NE(::mkdtemp(path.data()), nullptr);
        scratch = fs::canonical(path);
    }
    // The watcher of a killed unit may be removing files at the same time.
    void TearDown() override {
        EXPECT_TRUE(Eventually([&] {
            std::error_code error;
            fs::remove_all(scratch, error);
            return !fs::exists(scratch);
        }));
    }

    [[nodiscard]] std::string Scratch(const std::string& name) const { return scratch / name; }

    // The arguments that run the probe on a unit in the folder "unit".
    [[nodiscard]] std::vector<std::string> Run(std::vector<std::string> options,
                                               const std::vector<std::string>& task) const {
        options.insert(options.begin(), {"run", "--dir", Scratch("unit")});
        options.insert(options.end(), {"--", UNIT_PROBE});
        options.insert(options.end(), task.begin(), task.end());
        return options;
    }

    // Starts a unit and waits for its program's first line, which is printed at once although the
    // program never flushes it.
    [[nodiscard]] static ChildProcess Start(const std::vector<std::string>& arguments) {
        ChildProcess tool(ToolCall(arguments));
        EXPECT_NE(tool.Log().WaitFor("waits\n", kPatience), std::string::npos);
        return tool;
    }

    fs::path scratch;
};

TEST_F(RunCommand, ExitsAsTheProgramAndLeavesNothingBehind) {
    EXPECT_EQ(RunTool(Run({}, {"exit", "7"})).status, 7);
    EXPECT_EQ(RunTool(Run({}, {"raise", std::to_string(SIGUSR2)})).status, 128 + SIGUSR2);
    for (const int passedOn : {SIGTERM, SIGINT, SIGHUP}) {
        ChildProcess tool = Start(Run({}, {"wait"}));
        EXPECT_THAT(tool.Log().Text(), HasSubstr("has its own group")) << "one signal, not two";
        tool.Signal(passedOn);
        EXPECT_EQ(tool.Wait(kPatience), 128 + passedOn);
        EXPECT_FALSE(fs::exists(Scratch("unit"))) << "it ended the program, and not the tool";
    }
    fs::create_directory(Scratch("unit"));
    const auto [status, output] = RunTool(Run({}, {"exit", "0"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, "vexa-unit: host socket " + Scratch("unit") + "/host.sock\n");
    EXPECT_TRUE(fs::is_empty(Scratch("unit"))) << "a folder that existed before stays";
}

TEST_F(RunCommand, WhenItIsKilledNothingIsLeftAndTheNextUnitStarts) {
    for (const bool existed : {false, true}) {
        if (existed) fs::create_directory(Scratch("unit"));
        ChildProcess tool = Start(Run({}, {"wait"}));
        tool.Signal(SIGKILL);
        EXPECT_EQ(tool.Wait(kPatience), 128 + SIGKILL);
        EXPECT_TRUE(Eventually([&] {
            return existed ? fs::is_empty(Scratch("unit")) : !fs::exists(Scratch("unit"));
        }));
        EXPECT_TRUE(tool.Log().WaitForEnd(kPatience)) << "the program has ended as well";
    }
    ChildProcess another = Start(Run({}, {"wait"}));
    another.Signal(SIGKILL);
    (void)another.Wait(kPatience);
    EXPECT_EQ(RunTool(Run({}, {"exit", "3"})).status, 3) << "whatever is left by then";
}

TEST_F(RunCommand, UnitsSideBySideAreToldApartAndControlled) {
    const auto ask = [&](const std::string& unit, std::vector<std::string> words) {
        words.insert(words.begin(), {"ctl", "--dir", Scratch(unit)});
        const auto [status, output] = RunTool(words);
        return std::to_string(status) + " " + output;
    };
    const auto one = Start({"run", "--dir", Scratch("one"), "--", UNIT_PROBE, "library"});
    const auto two = Start(
        {"run", "--dir", Scratch("two"), "--scenario", "dead-daq", "--", UNIT_PROBE, "library"});
    EXPECT_EQ(ask("one", {"fault", "set", "data", "corrupt", "for=7", "offset=1"}), "0 fault 1\n");
    EXPECT_EQ(ask("one", {"fault", "list"}), "0 1  data corrupt  for 7, offset 1, hits 0\n");
    EXPECT_EQ(ask("two", {"fault", "list"}), "0 no faults\n");
    EXPECT_EQ(ask("one", {"fault", "clear", "data"}), "0 1 cleared\n");
    EXPECT_EQ(ask("one", {"cable", "flap", "times=1"}), "0 ");
    EXPECT_EQ(ask("one", {"detach", "None"}), "1 vexa-unit: name: there is no device \"None\"\n");
    EXPECT_EQ(ask("one", {"app", "DAQ", "holds"}), "2 vexa-unit: expected KEY=VALUE, not holds\n");
    EXPECT_EQ(ask("none", {"state"}), "2 vexa-unit: no unit to control in " + Scratch("none") +
                                          ": No such file or directory\n");
    EXPECT_EQ(ask("one", {"--raw", R"({"request": "daq"})"}), "0 {\"ok\":true}\n");
    const std::string state = ask("one", {"state"});
    EXPECT_THAT(state, HasSubstr("cable     in, flap {\"inMs\":1000,\"outMs\":1000,\"times\":1}"));
    EXPECT_THAT(state, HasSubstr("\n  Microphone        type 11, attached, blockSize 72, rate 50, "
                                 "waveform square, echo\n"));
    EXPECT_THAT(state, HasSubstr("\n  DAQ               holds, delayMs 20, not silent"));
    EXPECT_THAT(state, HasSubstr("answersSync, syncDelayMs 20"));
    EXPECT_THAT(ask("two", {"state"}), HasSubstr("not answersSync, syncDelayMs 20"));
    EXPECT_THAT(ask("two", {"state", "--json"}), HasSubstr("\"answersSync\":false"));
    EXPECT_THAT(ask("two", {"calls"}), HasSubstr("VEXA_Init                               1\n"));
}

TEST_F(RunCommand, ListsTheScenariosThatItKnows) {
    const auto [status, output] = RunTool({"scenarios"});
    EXPECT_EQ(status, 0);
    for (const auto& entry : fs::directory_iterator(UNIT_SCENARIO_FOLDER)) {
        const bool isSchema = entry.path().stem().extension() == ".schema";
        const std::string name = entry.path().stem();
        EXPECT_EQ(output.find(name + " ") != std::string::npos, !isSchema) << name;
    }
}

TEST_F(RunCommand, RefusesAFolderInWhichAUnitRuns) {
    {
        const ChildProcess running = Start(Run({}, {"wait"}));
        const auto [status, output] = RunTool(Run({}, {"exit", "0"}));
        EXPECT_EQ(status, 2);
        EXPECT_THAT(output, HasSubstr("another unit is running in " + Scratch("unit")));
        EXPECT_TRUE(ConnectHost(Scratch("unit"))) << "the first one is not disturbed";
    }
    // A socket that somebody else listens on.
    EXPECT_TRUE(Eventually([&] { return !fs::exists(Scratch("unit")); }));
    fs::create_directory(Scratch("unit"));
    const Descriptor listener = ListenOn(HostSocketPath(Scratch("unit")));
    EXPECT_EQ(RunTool(Run({}, {"exit", "0"})).status, 2);
    EXPECT_TRUE(ConnectHost(Scratch("unit")));
}

TEST_F(RunCommand, SaysInOneLineWhatCannotBeUsed) {
    std::ofstream(Scratch("scenario")) << R"({"daq": {"colour": 1}})";
    std::ofstream(Scratch("file")) << "";
    const std::string unit = Scratch("unit");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "subcommand is required"},
        {Run({"--scenario", "none"}, {}), "scenario none: there is no file of that name"},
        {{"ctl"}, "a command is required"},
        {{"ctl", "--raw", "{}", "state"}, "either a command or --raw"},
        {Run({"--scenario", Scratch("none")}, {}), "scenario " + Scratch("none") + ": cannot read"},
        {Run({"--scenario", Scratch("scenario")}, {}), "daq.colour: unknown key"},
        {Run({"--journal", Scratch("none/journal")}, {}), "journal " + Scratch("none/journal")},
        {{"run", "--dir", unit, "--", "no-such-program"}, "cannot run no-such-program: No such"},
        {{"run", "--dir", unit, "--", Scratch("file")}, "cannot run " + Scratch("file")},
        {{"run", "--dir", Scratch("none/unit"), "--", UNIT_PROBE}, "cannot make the folder"},
        {{"run", "--dir", Scratch("file"), "--", UNIT_PROBE}, "there is a file of that name"},
        {{"run", "--dir", Scratch(std::string(100, 'd')), "--", UNIT_PROBE}, "characters at most"},
    };
    for (const auto& [arguments, complaint] : cases) {
        const auto [status, output] = RunTool(arguments);
        EXPECT_EQ(status, 2) << complaint;
        EXPECT_THAT(output, ::testing::StartsWith("vexa-unit: "));
        EXPECT_THAT(output, HasSubstr(complaint));
        EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
    }
    for (const auto& entry : fs::directory_iterator(scratch)) {
        EXPECT_TRUE(entry.is_regular_file()) << entry << " was left behind";
    }
}

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
