// vexa-unit as its users start it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "model/UnitSocket.h"
#include "unit/HostClient.h"
#include "unit/RunningTool.h"

namespace vexa::unit {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

bool Eventually(const std::function<bool()>& condition) {
    for (int look = 0; look < 30000; ++look) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

class RunCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string path = ::testing::TempDir() + "/run-XXXXXX";
        ASSERT_NE(::mkdtemp(path.data()), nullptr);
        scratch = fs::canonical(path);
    }
    // What watches over a killed unit may be tidying up in there at the same time.
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

    fs::path scratch;
};

TEST_F(RunCommand, ExitsAsTheProgramAndLeavesNothingBehind) {
    EXPECT_EQ(RunningTool(Run({}, {"exit", "7"})).Wait(), 7);
    EXPECT_EQ(RunningTool(Run({}, {"raise", std::to_string(SIGUSR2)})).Wait(), 128 + SIGUSR2);
    for (const int passedOn : {SIGTERM, SIGINT}) {
        RunningTool tool(Run({}, {"wait"}));
        ASSERT_TRUE(tool.AwaitOutput("waits\n")) << "printed at once, though never flushed";
        tool.Send(passedOn);
        EXPECT_EQ(tool.Wait(), 128 + passedOn) << "it ended the program, and not the tool";
    }
    EXPECT_FALSE(fs::exists(Scratch("unit")));

    fs::create_directory(Scratch("unit"));
    RunningTool tool(Run({}, {"exit", "0"}));
    EXPECT_EQ(tool.Wait(), 0);
    EXPECT_EQ(tool.Output(), "vexa-unit: host socket " + Scratch("unit") + "/host.sock\n");
    EXPECT_TRUE(fs::is_empty(Scratch("unit"))) << "a folder that was there stays";
}

TEST_F(RunCommand, WhenItIsKilledNothingIsLeftAndTheNextUnitStarts) {
    RunningTool tool(Run({}, {"wait"}));
    ASSERT_TRUE(tool.AwaitOutput("waits\n"));
    tool.Send(SIGKILL);
    EXPECT_EQ(tool.Wait(), -SIGKILL);  // returns only when the program has ended as well
    EXPECT_TRUE(Eventually([&] { return !fs::exists(Scratch("unit")); }));

    RunningTool another(Run({}, {"wait"}));
    ASSERT_TRUE(another.AwaitOutput("waits\n"));
    another.Send(SIGKILL);
    EXPECT_EQ(another.Wait(), -SIGKILL);
    EXPECT_EQ(RunningTool(Run({}, {"exit", "3"})).Wait(), 3) << "whatever is left by then";
    EXPECT_FALSE(fs::exists(Scratch("unit") + "/host.sock"));
}

TEST_F(RunCommand, UnitsSideBySideAreToldApartAndControlled) {
    const auto ask = [&](const std::string& unit, std::vector<std::string> words) {
        words.insert(words.begin(), {"ctl", "--dir", Scratch(unit)});
        RunningTool tool(words);
        const int status = tool.Wait();
        return std::to_string(status) + " " + tool.Output();
    };
    RunningTool one({"run", "--dir", Scratch("one"), "--", UNIT_PROBE, "library"});
    RunningTool two(
        {"run", "--dir", Scratch("two"), "--scenario", "dead-daq", "--", UNIT_PROBE, "library"});
    ASSERT_TRUE(one.AwaitOutput("waits\n") && two.AwaitOutput("waits\n"));
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
    EXPECT_THAT(ask("one", {"state"}), HasSubstr("answersSync, syncDelayMs 20"));
    EXPECT_THAT(ask("two", {"state"}), HasSubstr("not answersSync, syncDelayMs 20"));
    EXPECT_THAT(ask("two", {"state", "--json"}), HasSubstr("\"answersSync\":false"));
}

TEST_F(RunCommand, ListsTheScenariosThatItKnows) {
    RunningTool tool({"scenarios"});
    EXPECT_EQ(tool.Wait(), 0);
    for (const auto& entry : fs::directory_iterator(UNIT_SCENARIO_FOLDER)) {
        const bool isSchema = entry.path().stem().extension() == ".schema";
        const std::string name = entry.path().stem();
        EXPECT_EQ(tool.Output().find(name + " ") != std::string::npos, !isSchema) << name;
    }
}

TEST_F(RunCommand, RefusesAFolderInWhichAUnitRuns) {
    {
        RunningTool running(Run({}, {"wait"}));
        ASSERT_TRUE(running.AwaitOutput("waits\n"));
        RunningTool second(Run({}, {"exit", "0"}));
        EXPECT_EQ(second.Wait(), 2);
        EXPECT_THAT(second.Output(), HasSubstr("another unit is running in " + Scratch("unit")));
        EXPECT_TRUE(ConnectHost(Scratch("unit"))) << "the first one is not disturbed";
        running.Send(SIGTERM);
        EXPECT_EQ(running.Wait(), 128 + SIGTERM);
    }
    // A socket that somebody else listens on.
    fs::create_directory(Scratch("unit"));
    const Descriptor listener = ListenOn(HostSocketPath(Scratch("unit")));
    RunningTool third(Run({}, {"exit", "0"}));
    EXPECT_EQ(third.Wait(), 2);
    EXPECT_TRUE(ConnectHost(Scratch("unit")));
}

TEST_F(RunCommand, SaysInOneLineWhatCannotBeUsed) {
    std::ofstream(Scratch("scenario")) << R"({"daq": {"colour": 1}})";
    std::ofstream(Scratch("file")) << "";
    const std::string unit = Scratch("unit");
    struct Case {
        std::vector<std::string> arguments;
        std::string complaint;
    };
    const Case cases[] = {
        {{}, "subcommand is required"},
        {Run({"--scenario", "none"}, {}), "scenario none: there is no file of that name"},
        {{"ctl"}, "a command is required"},
        {{"ctl", "--raw", "{}", "state"}, "either a command or --raw"},
        {Run({"--scenario", Scratch("none")}, {}), "scenario " + Scratch("none") + ": cannot read"},
        {Run({"--scenario", Scratch("scenario")}, {}), "daq.colour: unknown key"},
        {Run({"--journal", Scratch("none/journal")}, {}), "journal " + Scratch("none/journal")},
        {{"run", "--dir", unit, "--", "no-such-program"}, "cannot run no-such-program"},
        {{"run", "--dir", unit, "--", Scratch("file")}, "cannot run " + Scratch("file")},
        {{"run", "--dir", Scratch("none/unit"), "--", UNIT_PROBE}, "cannot make the folder"},
        {{"run", "--dir", Scratch("file"), "--", UNIT_PROBE}, "there is a file of that name"},
        {{"run", "--dir", Scratch(std::string(100, 'd')), "--", UNIT_PROBE}, "characters at most"},
    };
    for (const auto& [arguments, complaint] : cases) {
        RunningTool tool(arguments);
        EXPECT_EQ(tool.Wait(), 2) << complaint;
        EXPECT_THAT(tool.Output(), ::testing::StartsWith("vexa-unit: "));
        EXPECT_THAT(tool.Output(), HasSubstr(complaint));
        EXPECT_EQ(std::ranges::count(tool.Output(), '\n'), 1) << tool.Output();
    }
    for (const auto& entry : fs::directory_iterator(scratch)) {
        EXPECT_TRUE(entry.is_regular_file()) << entry << " was left behind";
    }
}

}  // namespace
}  // namespace vexa::unit
