// Each scenario that ships, for 20 s, with the host script that says what must hold there.
#include <gtest/gtest.h>

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
    const auto ran =
        testkit::RunToEnd({Program("vexa-host"), "shell", "--verbose", "--script",
                           VEXA_SCRIPTS "/" + GetParam() + ".vexa", "--dir", unit.Folder()});
    EXPECT_EQ(ran.status, 0) << ran.output;
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
