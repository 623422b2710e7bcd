// vexa-host as a program: what it prints, its exit codes, and what it leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "DeviceData.h"
#include "Duration.h"
#include "FakeService.h"

namespace vexahost {
namespace {

using testing::AllOf;
using testing::HasSubstr;

struct Ran {
    int exitCode;
    std::string output;  // both streams
};

// Runs a shell command line in which $HOST is vexa-host.
Ran RunShell(const std::string& commandLine) {
    const std::string line = "exec 2>&1; HOST='" VEXA_HOST_PROGRAM "'; " + commandLine;
    Ran ran{-1, ""};
    FILE* pipe = popen(line.c_str(), "re");
    if (pipe == nullptr) return ran;
    std::array<char, 500> text{};
    while (const std::size_t count = fread(text.data(), 1, text.size(), pipe)) {
        ran.output.append(text.data(), count);
    }
    const int status = pclose(pipe);
    ran.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return ran;
}

class Tool : public testing::Test {
  protected:
    Tool() {
        std::string pattern = testing::TempDir() + "vexa-host-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) folder = pattern;
    }
    ~Tool() override { std::filesystem::remove_all(folder); }

    [[nodiscard]] std::string Socket() const { return folder + "/host.sock"; }

    std::string folder;
};

TEST_F(Tool, WrongUseIsOneLineAndExitCodeTwo) {
    const std::pair<std::string, const char*> cases[] = {
        {"$HOST", "A subcommand is required"},
        {"$HOST sync --dir " + folder, "/host.sock: No such file or directory"},
        {"$HOST sync --dir /" + std::string(200, 'x'), "the path is too long for a socket"},
        {"$HOST stream A --for soon --dir " + folder, "--for soon: expected a time such as 3s"},
        {"$HOST stream --dir " + folder, "NAME is required"},
    };
    for (const auto& [line, message] : cases) {
        const Ran ran = RunShell(line);
        EXPECT_EQ(ran.exitCode, 2) << line;
        EXPECT_THAT(ran.output, AllOf(testing::StartsWith("vexa-host: "), HasSubstr(message)));
        EXPECT_EQ(std::ranges::count(ran.output, '\n'), 1) << ran.output;
    }
}

TEST_F(Tool, ExitCodesTellWhatTheUnitDid) {
    struct Case {
        const char* line;
        FakeService::Handler handler;
        int exitCode;
        const char* output;
    };
    const auto refuse = [](FakeService& self, const Bytes& packet) {
        if (packet[0] == 0x40) return FakeService::Obey(self, packet);
        self.SendFramed(ControllerReply(1, 0, 0x9C, packet[12], packet[10], 59));
    };
    const auto streamOneBlock = [](FakeService& self, const Bytes& packet) {
        FakeService::Obey(self, packet);
        if (packet[0] == 0x60 && packet[12] == 0x70) {
            self.SendFramed(ChildBlock(0x1001, 1, {0x05, 2, 0x10, 0xFF, 0xE8, 3, 0, 0}));
        }
    };
    const Case cases[] = {
        {"sync", FakeService::Obey, 0, "in step with the unit"},
        {"query", refuse, 1, "vexa-host: open controller was refused: error 59, the DAQ did not"},
        {"sync", [](FakeService&, const Bytes&) {}, 3, "vexa-host: no answer in time to: initial"},
        {"sync", [](FakeService& self, const Bytes&) { self.SendBytes(Bytes(8)); }, 4,
         "bad frame header"},
        {"stream T --for 300ms", streamOneBlock, 0,
         "T              1.000 s: -240\nT: 1 blocks, 8 bytes, 1 gaps in the sequence, 0 blocks"},
    };
    for (const Case& unit : cases) {
        std::filesystem::remove(Socket());
        FakeService service(Socket(), unit.handler);
        const Ran ran = RunShell(std::string("VEXA_UNIT_DIR=") + folder + " $HOST " + unit.line);
        EXPECT_EQ(ran.exitCode, unit.exitCode) << unit.line << ran.output;
        EXPECT_THAT(ran.output, HasSubstr(unit.output));
    }
}

TEST_F(Tool, DemoReportsAUnitThatFailsAndLeavesNothingBehind) {
    const std::string demo = "TMPDIR=" + folder + " $HOST demo -- ";
    const std::pair<std::string, const char*> cases[] = {
        {folder + "/none", "cannot start "},
        {"sh -c 'echo made > {dir}/file; echo here it is'", "unit | here it is"},
        // Neither ends at SIGTERM nor closes its output.
        {"sh -c 'trap \"\" TERM; sleep 1000 & wait; wait'", "The unit had to be killed."},
    };
    for (const auto& [unit, output] : cases) {
        const Ran ran = RunShell(demo + unit);
        EXPECT_EQ(ran.exitCode, 1);
        EXPECT_THAT(ran.output, AllOf(HasSubstr(output), HasSubstr("FAILED: expected "),
                                      HasSubstr("0 of 18 steps as expected")));
        EXPECT_TRUE(std::filesystem::is_empty(folder)) << unit;
    }
    // The unit itself interrupts the host, so that it surely runs by then.
    const Ran ran = RunShell(demo + "sh -c 'echo up; kill -INT $PPID; sleep 1000'");
    EXPECT_EQ(ran.exitCode, 130);
    EXPECT_THAT(ran.output, HasSubstr("Interrupted."));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST(Duration, HasUnitsAndLimits) {
    EXPECT_EQ(ParseDuration("3s"), std::chrono::seconds(3));
    EXPECT_EQ(ParseDuration("1.5"), std::chrono::milliseconds(1500));
    EXPECT_EQ(ParseDuration("250ms"), std::chrono::milliseconds(250));
    for (const char* wrong : {"", "s", "-1s", "0", "3h", "3 s", "nan", "inf", "1e99", "1441m"}) {
        EXPECT_FALSE(ParseDuration(wrong)) << wrong;
    }
}

TEST(DeviceData, DecodesOnlyWhatIsWhole) {
    const Bytes block = Sealed({0xA0, 12, 0, 0, 0xE8, 3, 0, 0, 0xFF, 0xFF, 0x10, 0x27});
    EXPECT_EQ(DescribeBlock(block), "1.000 s: -1 10000");
    Bytes wrong = block;
    ++wrong[3];
    EXPECT_EQ(DescribeBlock(wrong), "a0 0c 00 " + ToHex(Part(wrong, 3, 12)));
    EXPECT_EQ(DescribeBlock(Part(block, 0, 11)), ToHex(Part(block, 0, 11)));
    EXPECT_EQ(DescribeBlock(Bytes{3, 2, 0xFE, 0xFF, 1, 0, 0, 0}), "0.001 s: -2");
    EXPECT_EQ(DescribeBlock(Bytes{0x80, 2, 0, 0, 0, 0, 0, 0}), "80 02 00 00 00 00 00 00");
}

}  // namespace
}  // namespace vexahost
