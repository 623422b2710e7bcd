// Each scenario that ships, for 20 s, with the host script that says what must hold there.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

class Scenario : public testing::TestWithParam<std::string> {};

TEST_P(Scenario, ItsScriptPasses) {
    std::ostringstream scenario;
    scenario << std::ifstream(VEXA_SCENARIOS "/" + GetParam() + ".json").rdbuf();
    RunningUnit unit(scenario.str());
    const auto folder = std::filesystem::path(unit.SocketPath()).parent_path().string();
    FILE* const pipe = popen((PROGRAM_DIR "/vexa-host shell --verbose --script " VEXA_SCRIPTS "/" +
                              GetParam() + ".vexa --dir " + folder + " 2>&1")
                                 .c_str(),
                             "re");
    ASSERT_NE(pipe, nullptr);
    std::string said;
    std::array<char, 500> piece{};
    while (const std::size_t count = fread(piece.data(), 1, piece.size(), pipe)) {
        said.append(piece.data(), count);
    }
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0) << said;
    EXPECT_EQ(unit.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Shipped, Scenario,
                         testing::Values("default", "busy-lab", "flaky-cable", "daq-in-use",
                                         "dead-daq", "hostile-library"),
                         [](const auto& scenario) {
                             std::string name = scenario.param;
                             std::erase(name, '-');
                             return name;
                         });

}  // namespace
}  // namespace vexa::test
