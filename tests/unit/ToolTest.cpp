// vexa-unit as its users start it: run, ctl, scenarios, check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "model/UnitSocket.h"
#include "testkit/ChildProcess.h"
#include "vexahost/Recording.h"

namespace vexa::unit {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using testkit::ChildProcess;

constexpr std::chrono::seconds kPatience{30};
constexpr char kRunOnUnit[] = "run --dir unit -- " UNIT_PROBE " 7";

class Tool : public ::testing::Test {
  protected:
    void SetUp() override { fs::create_directory(scratch); }
    // The watcher of a killed unit may be removing files at the same time.
    void TearDown() override {
        std::error_code error;
        EXPECT_TRUE(testkit::WaitUntil(
            kPatience, [&] { return fs::remove_all(scratch, error) == 0 && !error; }));
    }

    // Runs the tool in the scratch folder to its end; "STATUS OUTPUT". The shell reads `before`
    // first.
    [[nodiscard]] std::string Run(const std::string& arguments,
                                  const std::string& before = "") const {
        const auto [status, output] =
            testkit::RunShell("cd '" + scratch.string() + "' && " + before +
                              " exec '" VEXA_UNIT_PROGRAM "' " + arguments);
        return std::to_string(status) + " " + output;
    }

    // Starts a unit, and waits for its program's line, which is printed at once although the
    // program never flushes it.
    [[nodiscard]] static ChildProcess Start(const std::string& folder,
                                            const std::string& scenario = "default") {
        ChildProcess tool({.command = {VEXA_UNIT_PROGRAM, "run", "--dir", folder, "--scenario",
                                       scenario, "--", UNIT_PROBE, "wait"},
                           .withoutInput = true});
        EXPECT_NE(tool.Log().WaitFor("waits in its own group\n", kPatience), std::string::npos);
        return tool;
    }

    const fs::path scratch = fs::temp_directory_path() / ("tool-" + std::to_string(::getpid()));
    const std::string unit = scratch / "unit";
};

TEST_F(Tool, ExitsAsTheProgramAndLeavesNothingBehind) {
    for (const int passedOn : {SIGTERM, SIGINT, SIGHUP}) {
        ChildProcess tool = Start(unit);
        tool.Signal(passedOn);
        EXPECT_EQ(tool.Wait(kPatience), 128 + passedOn);
        EXPECT_FALSE(fs::exists(unit)) << "it ended the program, and not the tool";
    }
    fs::create_directory(unit);
    EXPECT_EQ(Run(kRunOnUnit), "7 vexa-unit: host socket " + unit + "/host.sock\n");
    EXPECT_TRUE(fs::is_empty(unit)) << "a folder that existed before stays";
}

TEST_F(Tool, WhenItIsKilledNothingIsLeftAndTheNextUnitStarts) {
    for (const bool existed : {false, true}) {
        if (existed) fs::create_directory(unit);
        ChildProcess tool = Start(unit);
        tool.Signal(SIGKILL);
        EXPECT_EQ(tool.Wait(kPatience), 128 + SIGKILL);
        if (existed) {
            // What is left may still hold the lock.
            EXPECT_TRUE(
                testkit::WaitUntil(kPatience, [&] { return Run(kRunOnUnit).starts_with("7 "); }));
        }
        EXPECT_TRUE(testkit::WaitUntil(
            kPatience, [&] { return existed ? fs::is_empty(unit) : !fs::exists(unit); }));
        EXPECT_TRUE(tool.Log().WaitForEnd(kPatience)) << "the program has ended as well";
    }
}

TEST_F(Tool, UnitsSideBySideAreToldApartAndControlled) {
    const auto one = Start(unit);
    const auto two = Start(scratch / "two", "dead-daq");
    EXPECT_EQ(Run(kRunOnUnit), "2 vexa-unit: another unit is running in " + unit + "\n");
    EXPECT_TRUE(ConnectTo(HostSocketPath(unit))) << "the first one is not disturbed";
    const std::pair<std::string, std::string> cases[] = {
        {"unit fault set data corrupt for=7 offset=1 later=true", "0 fault 1\n"},
        {"unit fault list", "0 1  data corrupt  for 7, later, offset 1, hits 0\n"},
        {"two fault list", "0 no faults\n"},
        {"unit fault clear data", "0 1 cleared\n"},
        {"unit cable flap times=1", "0 "},
        {"unit app DAQ holds", "2 vexa-unit: expected KEY=VALUE, not holds\n"},
        {"unit --raw '{\"request\": \"daq\"}'", "0 {\"ok\":true}\n"},
        {"unit state", "cable     in, flap {\"inMs\":1000,\"outMs\":1000,\"times\":1,"},
        {"unit state", "\n  Microphone        type 11, attached, blockSize 72, rate 50, waveform"},
        {"unit attach Other type=11", "0 "},
        {"unit state", "waveform sine, echo; hosts get Microphone instead\n"},
        {"two wait call=VEXA_Init count=2 --for 1ms", "3 vexa-unit: timeout; not yet: call\n"},
        {"unit state", "\n  DAQ               holds, delayMs 20, not silent"},
        {"two state", "not answersSync, syncDelayMs 20"},
    };
    for (const auto& [request, answer] : cases) {
        EXPECT_THAT(Run("ctl --dir " + request), HasSubstr(answer)) << request;
    }
}

TEST_F(Tool, RunsWhereverItIsAndWhoeverStartsIt) {
#ifdef VEXA_EMULATED
    GTEST_SKIP() << "copies of the programs would be started without the emulator";
#endif
    const std::string probe = " -- " UNIT_PROBE " 7";
    const std::string longName(100, 'd');
    fs::create_directories(scratch / longName);
    fs::create_directories(scratch / "real");
    fs::create_directory_symlink("real", scratch / "link");
    const std::array<std::string, 3> cases[] = {
        {"", "run --dir link" + probe, "7 vexa-unit: host socket " + scratch.string() + "/link/"},
        {"export TMPDIR=" + longName + ";", "run" + probe, "7 vexa-unit: host socket /tmp/vexa-"},
        {"trap '' CHLD;", "run" + probe, "7 "},
        {"",
         "run -- sh -c 'read watcher rest </proc/$PPID/task/$PPID/children;"
         " kill -9 $watcher; exit 7'",
         "7 "},
        {R"(echo '{"node": {"present": false}}' |)",
         "run --scenario /dev/stdin -- '" VEXA_UNIT_PROGRAM "' check", "missing  /dev/zt-usb: "},
    };
    for (const auto& [before, arguments, output] : cases) {
        EXPECT_THAT(Run(arguments, before), HasSubstr(output)) << arguments;
    }
    // The elements of LD_PRELOAD and LD_LIBRARY_PATH end at blanks and colons.
    const fs::path odd = scratch / "a b:c";
    fs::create_directories(odd / "bin");
    fs::create_directory_symlink(fs::path(VEXA_UNIT_PROGRAM).parent_path().parent_path() / "lib",
                                 odd / "lib");
    fs::copy_file(VEXA_UNIT_PROGRAM, odd / "bin" / "vexa-unit");
    const auto check = testkit::RunToEnd({odd / "bin" / "vexa-unit", "run", "--dir", odd / "unit",
                                          "--", VEXA_UNIT_PROGRAM, "check"});
    EXPECT_THAT(check.output, HasSubstr("/dev/zt-usb: the cable is out\n"));
    EXPECT_FALSE(fs::exists(odd / "unit"));
}

TEST_F(Tool, SaysInOneLineWhatCannotBeUsed) {
    fs::create_directory(scratch / "kept");
    std::ofstream(scratch / "kept" / "host.sock") << "the user's";
    std::ofstream(scratch / "file") << R"({"daq": {"colour": 1}})";
    const std::pair<std::string, std::string> cases[] = {
        {"", "a command is required: run, scenarios"},
        {"rnu --dir unit", "no such command: rnu; did you mean run?"},
        {"ctl --dir unit fault sett data", "no such command: ctl fault sett; did you mean set?"},
        {"scenarios a --dir unit b", "not expected: a --dir unit b "},
        {"run --scenari none", "not expected: --scenari; did you mean --scenario?"},
        {"--dir none ctl state", "no unit to control in none: No such file"},
        {"ctl --dir none detach -- --dir", "no unit to control in none: No such file"},
        {"run --vexa none -- true", "--vexa none: No such file"},
        {"ctl --raw {} state", "either a command or --raw"},
        {"ctl --dir none state", "no unit to control in none: No such file"},
        {"run --scenario none", "scenario none: there is no file of that name"},
        {"run --scenario ./none", "/none: cannot read it"},
        {"run --scenario ./file", "daq.colour: unknown key"},
        {"run --journal none/journal", "journal none/journal"},
        {"run --link usb", "there is no /dev/zt-usb: vexa-usb serves it"},
        {"devices --json --scenario", "either --json or --scenario"},
        {"run --dir unit -- no-such-program", "cannot run no-such-program: No such"},
        {"run --dir none/unit -- true", "cannot make the folder"},
        {"run --dir file -- true", "there is a file of that name"},
        {"run --dir kept -- true", "there is a file of that name, which is no socket"},
        {"ctl attach A type=8 type=9", "type is given twice"},
        {"run --dir " + std::string(100, 'd'), "characters at most"},
    };
    for (const auto& [arguments, complaint] : cases) {
        EXPECT_THAT(Run(arguments),
                    AllOf(HasSubstr(complaint), ::testing::MatchesRegex("2 vexa-unit: [^\n]*\n")));
    }
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(scratch), {}), 3) << "left behind";
    EXPECT_THAT(Run("scenarios"), AllOf(HasSubstr("\nhostile-library "), Not(HasSubstr("schema"))));
}

TEST_F(Tool, ListsDevicesAsAScenarioThatCanBeUsed) {
    EXPECT_THAT(Run("devices --json"), HasSubstr("0 {\"iio\":["));
    EXPECT_THAT(Run("devices"), HasSubstr("serial lines (\"serial\")\n"));
    EXPECT_THAT(Run("devices --scenario >board.json && '" VEXA_UNIT_PROGRAM
                    "' run --scenario ./board.json -- true"),
                HasSubstr("0 "));
}

TEST_F(Tool, SaysWhenItsOutputIsLost) {
    for (const std::string command : {"scenarios", "scenarios --schema", "ctl --help"}) {
        EXPECT_THAT(Run(command + " >/dev/full"), HasSubstr("6 vexa-unit: cannot write to"));
        EXPECT_THAT(Run(command + " >&-"), HasSubstr("6 vexa-unit: cannot write to"));
    }
    // The reader leaves at once; nothing is said about that.
    EXPECT_EQ(Run("scenarios --schema | true"), "0 ");
}

TEST_F(Tool, PutsAUnitsOwnLibrariesOnTheStandInNode) {
    const std::string probe = " -- '" VEXA_UNIT_PROGRAM "' check --device Clock";
    EXPECT_THAT(Run("run --vexa " ODD_LIBRARY + probe),
                AllOf(HasSubstr("missing  libVEXA.so: the function VEXA_Init\n"),
                      HasSubstr("/dev/zt-usb: the cable is out\n")));
    fs::create_symlink(ODD_LIBRARY, scratch / "libVEXA.so");
    ::setenv("LD_LIBRARY_PATH", scratch.c_str(), 1);
    EXPECT_THAT(Run("run" + probe),
                HasSubstr("libVEXA.so is the stand-in, not " + scratch.string()));
    ::unsetenv("LD_LIBRARY_PATH");
}

TEST_F(Tool, PlaysTheUnitsSideOfARecording) {
    const std::string recording = CAPTURES "/whole-session.pcapng";
    // Is that host, perhaps with a wrong first byte.
    const auto play = [&](std::uint8_t error) {
        ChildProcess tool({.command = {VEXA_UNIT_PROGRAM, "play", recording, "--dir", unit}});
        EXPECT_NE(tool.Log().WaitFor("host socket", kPatience), std::string::npos);
        testkit::Descriptor host;
        auto reader = vexahost::PcapngReader::Open(recording);
        while (const auto frame = reader->Next()) {
            std::vector<std::uint8_t> bytes(frame->bytes.begin(), frame->bytes.end());
            if (frame->comment == vexahost::kCableIn) host = ConnectTo(HostSocketPath(unit));
            if (frame->comment == vexahost::kCableOut) host.Close();
            if (bytes.empty()) continue;
            if (frame->direction == vexahost::Direction::kToUnit) {
                bytes[0] ^= std::exchange(error, std::uint8_t{0});
                EXPECT_GT(::send(host.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), 0);
                continue;
            }
            std::vector<std::uint8_t> received(bytes.size());
            (void)::recv(host.Get(), received.data(), received.size(), MSG_WAITALL);
            EXPECT_EQ(received, bytes);
        }
        EXPECT_TRUE(tool.Log().WaitForEnd(kPatience));
        return std::to_string(tool.Wait(kPatience).value_or(-1)) + " " +
               testkit::SplitLines(tool.Log().Text()).back();
    };
    EXPECT_THAT(play(0),
                ::testing::MatchesRegex("0 [0-9]+ frames played; [0-9]+ requests as rec.*"));
    EXPECT_THAT(play(1), AllOf(HasSubstr("1 "), HasSubstr("record 2: byte 0 from the host is 65")));
}

TEST_F(Tool, ChecksAUnit) {
    EXPECT_THAT(Run("run -- '" VEXA_UNIT_PROGRAM "' check --sessions --device Barometer"),
                AllOf(HasSubstr("1 attached of type 8: Accelerometer\n"),
                      HasSubstr("\"Barometer\" is of type 3\n"),
                      HasSubstr("the session with FGEN begins and ends\n"),
                      HasSubstr("/dev/zt-usb: the cable is out\n"), HasSubstr("0 "),
                      Not(HasSubstr("odd  "))));
    EXPECT_THAT(Run("check --vexcri " ODD_LIBRARY " --node /dev/null"),
                AllOf(HasSubstr("missing  libvexcri.so: the function criInit\n"),
                      HasSubstr("3 of 3 functions of vexcri.h; the others were not called\n")));

    auto lines = testkit::SplitLines(
        Run("check --vexa " ODD_LIBRARY " --vexcri /dev/null --node /dev/null --device Clock"));
    EXPECT_EQ(lines.at(0).substr(0, 4), "1 ok");
    // An emulator has a word of its own on a crash.
    std::erase_if(lines, [](const auto& line) {
        return line.find("ok  ") < 3 || line.starts_with("qemu: ");
    });
    const std::string entry = "odd      VEXA_DeviceListSnapshot_GetNthEntry of type ";
    EXPECT_THAT(lines,
                ::testing::ElementsAre(
                    "odd      VEXA_GetDLLVersion gave 5, not 0",
                    "odd      VEXA_SearchForDevices of type 2 gave -9, not 0",
                    "odd      VEXA_OpenDeviceListSnapshot of type 3 gave no snapshot",
                    "odd      \"Tilt\" is listed as of type 4, but looked up it is of type 8",
                    entry + "9, entry 0 writes beyond the 220 bytes that it was given",
                    entry + "11, entry 0 gives a name that does not end",
                    "missing  an acquisition board, type 5: no host can take the hardware over",
                    HasSubstr("an unknown name is of type 8; a host could open it"),
                    "odd      \"Clock\" is of type 7, which no host can open",
                    "odd      libVEXA.so: crashed (Aborted) in VEXA_Uninit",
                    HasSubstr("missing  libvexcri.so: /dev/null: "),
                    HasSubstr("odd      /dev/null: does not tell the cable's state"),
                    "See the lines that begin with missing or odd."));
}

}  // namespace
}  // namespace vexa::unit
