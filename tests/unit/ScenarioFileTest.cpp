#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "model/Settings.h"

namespace vexa::unit {
namespace {

using ::testing::HasSubstr;

std::variant<Scenario, ScenarioError> LoadText(const std::string& text) {
    const std::string path =
        ::testing::TempDir() + "/scenario-" + std::to_string(::getpid()) + ".json";
    std::ofstream(path) << text;
    return LoadScenario(path);
}

TEST(ScenarioFile, TheShippedDefaultIsTheBuiltInOne) {
    const auto loaded = LoadScenario(std::string(UNIT_SCENARIO_FOLDER) + "/default.json");
    ASSERT_TRUE(std::holds_alternative<Scenario>(loaded)) << std::get<ScenarioError>(loaded).text;
    Scenario builtIn;
    builtIn.description = std::get<Scenario>(loaded).description;
    EXPECT_EQ(std::get<Scenario>(loaded), builtIn);
}

TEST(ScenarioFile, WhatIsLeftOutIsAsInTheDefaultUnit) {
    Scenario expected;
    EXPECT_EQ(std::get<Scenario>(LoadText("{}")), expected);

    expected.devices = {{.name = "A", .type = 2, .attached = false, .blockSize = 8},
                        {.name = "B", .type = 9, .rate = 0.25, .waveform = Waveform::kNoise}};
    expected.daq.checksumErrorEvery = 4;
    expected.applications["DAQ"].refuses = {1, 2};
    expected.applications["FGEN"].responses = {{3, -1}};
    expected.applications["SPLASH"].strays = {
        {.when = StrayTime::kBeforeAnswer, .command = 7, .response = -1}};
    expected.node.present = false;
    expected.cable = {.in = true, .flapping = CableFlapping{.outMs = 5}};
    expected.faults = {{.call = Call::kNodeRead,
                        .action = FaultAction::kFail,
                        .skip = 1,
                        .count = 2,
                        .error = EINTR}};
    expected.library = {.initFails = true, .majorVersion = 9, .minorVersion = 65535};
    EXPECT_EQ(std::get<Scenario>(LoadText(R"({
        "devices": [{"name": "A", "type": 2, "attached": false},
                    {"name": "B", "type": 9, "rate": 0.25, "waveform": "noise"}],
        "daq": {"checksumErrorEvery": 4},
        "applications": {"DAQ": {"refuses": [1, 2]}, "FGEN": {"responses": {"3": -1}},
                         "SPLASH": {"strays": [{"when": "before", "command": 7, "response": -1}]}},
        "cable": {"flap": {"outMs": 5}},
        "faults": [{"call": "node.read", "action": "fail", "errno": "EINTR", "skip": 1,
                    "count": 2}],
        "node": {"present": false},
        "library": {"initFails": true, "version": [9, 65535]}})")),
              expected);
}

TEST(ScenarioFile, TheShippedSchemaIsTheOneOfTheSettings) {
    std::ifstream file(std::string(UNIT_SCENARIO_FOLDER) + "/scenario.schema.json");
    const std::string shipped((std::istreambuf_iterator<char>(file)), {});
    EXPECT_EQ(shipped, ScenarioSchemaText())
        << "vexa-unit scenarios --schema > unit/scenarios/scenario.schema.json";
}

TEST(ScenarioFile, WhatIsWrongIsNamedWithItsPlace) {
    struct Case {
        const char* text;
        const char* complaint;
    };
    const Case cases[] = {
        {"{\"daq\": ", "line 1, column 9"},
        {"[]", "the whole: expected an object, not []"},
        {R"({"gadgets": 1})", "gadgets: unknown key; expected one of: "},
        {R"({"devices": [{"type": 8}]})", "devices[0].name: is missing"},
        {R"({"devices": [{"name": "A\u0000B"}]})", "devices[0].name: expected a name"},
        {R"({"devices": [{"name": "A"}, {"name": "A"}]})", "devices[1].name: expected a name that"},
        {R"({"devices": [{"name": "Acquisition board"}]})", "[0].name: expected a name that"},
        {R"({"devices": [{"name": "A", "type": 5}]})", "devices[0].type: expected a sensor's type"},
        {R"({"devices": [{"name": "A", "type": 256}]})", "number from 0 to 255, not 256"},
        {R"({"devices": [{"name": "A", "type": 8.5}]})", "from 0 to 255, not 8.5"},
        {R"({"devices": [{"name": "A", "type": 3, "blockSize": 20}]})", "from 8 to 8, not 20"},
        {R"({"devices": [{"name": "A", "rate": 10001}]})", "from 0 to 10000, not 10001"},
        {R"({"devices": [{"name": "A", "waveform": "saw"}]})", ".waveform: expected \"sine\","},
        {R"({"devices": [{"name": "A", "echo": 1}]})", ".echo: expected true or false, not 1"},
        {R"({"applications": {"DAQ": {"responses": {"two": 1}}}})", "two: expected a command"},
        {R"({"applications": {"DAQ": {"responses": {"2": 4294967295}}}})", "2: expected a 32-bit"},
        {R"({"faults": [{"call": "data", "action": "fail"}]})",
         "faults[0].action: expected \"over"},
        {R"({"library": {"version": [3]}})", "library.version: expected a list of two"},
    };
    for (const auto& [text, complaint] : cases) {
        const auto loaded = LoadText(text);
        ASSERT_TRUE(std::holds_alternative<ScenarioError>(loaded)) << text;
        const std::string& error = std::get<ScenarioError>(loaded).text;
        EXPECT_THAT(error, HasSubstr(".json: ")) << text;
        EXPECT_THAT(error, HasSubstr(complaint)) << text;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace vexa::unit
