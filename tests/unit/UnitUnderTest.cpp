#include "unit/UnitUnderTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace vexa::unit {

namespace {

constexpr char kScenario[] = R"({
  "devices": [{"name": "Fast", "type": 8, "rate": 500},
              {"name": "Gone", "type": 8, "attached": false},
              {"name": "Quiet", "type": 8, "rate": 0},
              {"name": "Tilt", "type": 2, "rate": 0}],
  "daq": {"name": "Board", "syncDelayMs": 0, "measurementRate": 100},
  "applications": {"DAQ": {"delayMs": 0},
                   "SPLASH": {"delayMs": 0, "refuses": [2], "responses": {"1": -5}},
                   "FGEN": {"silent": true}}})";

std::string folder;

class UnitEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        std::string path = ::testing::TempDir() + "/unit-under-test-XXXXXX";
        ASSERT_NE(::mkdtemp(path.data()), nullptr);
        folder = path;
        std::ofstream(folder + "/scenario.json") << kScenario;
        ::setenv("VEXA_UNIT_DIR", folder.c_str(), 1);
        ::setenv("VEXA_UNIT_SCENARIO", (folder + "/scenario.json").c_str(), 1);
        ::setenv("VEXA_UNIT_JOURNAL", (folder + "/journal").c_str(), 1);
        (void)VEXA_Uninit(VEXA_Init());  // from its first call on the unit is there
    }
    void TearDown() override { std::filesystem::remove_all(folder); }
};

[[maybe_unused]] const auto* const environment =
    ::testing::AddGlobalTestEnvironment(new UnitEnvironment);

}  // namespace

const std::string& UnitFolderUnderTest() { return folder; }

std::vector<std::string> CallLogLines() {
    std::vector<std::string> lines;
    std::ifstream log(folder + "/journal");
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    return lines;
}

nlohmann::json AskLine(const std::string& line) {
    static const Descriptor connection = ConnectTo(ControlSocketPath(folder));
    std::string sent = line + "\n";
    std::replace(sent.begin(), sent.end() - 1, '\n', ' ');  // in a long literal
    EXPECT_EQ(::send(connection.Get(), sent.data(), sent.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(sent.size()));
    std::string answer;
    for (char letter = 0; ::recv(connection.Get(), &letter, 1, 0) == 1 && letter != '\n';) {
        answer += letter;
    }
    return nlohmann::json::parse(answer, nullptr, false);
}

std::string Line(const std::string& verb, const std::string& members) {
    return R"({"request": ")" + verb + (members.empty() ? "\"" : "\", ") + members + "}";
}

nlohmann::json Ask(const std::string& verb, const std::string& members) {
    auto answer = AskLine(Line(verb, members));
    EXPECT_EQ(answer["ok"], true) << members << answer;
    return answer;
}

}  // namespace vexa::unit
