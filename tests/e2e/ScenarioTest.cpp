// Each scenario that ships, for 20 s, with the host script that says what must hold there.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <utility>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

std::string TextOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// How much a machine carries is measured elsewhere. This one may be busy with other tests, and
// stand still for a second or two: what has to come within a time has more of it here.
std::string WithTime(std::string text) {
    static const std::pair<const char*, const char*> kChanges[] = {
        {R"("rate": 130\b)", R"("rate": 10)"},  // a second's blocks fit into the output buffer
        {R"("delayMs": 2000\b)", R"("delayMs": 500)"},
        {R"("inMs": 3000\b)", R"("inMs": 5000)"},
        {R"(receive daq 1 5s)", R"(receive daq 1 20s)"},
        {R"(rate >= \d+)", R"(rate >= 1)"},
        {R"(check (\w+) (?:blocks|packets) >= (\d+))", R"(receive $1 $2 20s)"}};
    for (const auto& [from, to] : kChanges) text = std::regex_replace(text, std::regex(from), to);
    return text;
}

class Scenario : public testing::TestWithParam<std::string> {};

TEST_P(Scenario, ItsScriptPasses) {
    RunningUnit unit(WithTime(TextOf(VEXA_SCENARIOS "/" + GetParam() + ".json")));
    const std::string script = unit.Folder() + "/script.vexa";
    std::ofstream(script) << WithTime(TextOf(VEXA_SCRIPTS "/" + GetParam() + ".vexa"));
    const auto ran = testkit::RunToEnd({Program("vexa-host"), "shell", "--verbose", "--script",
                                        script, "--dir", unit.Folder(), "--wait", "20s"});
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
