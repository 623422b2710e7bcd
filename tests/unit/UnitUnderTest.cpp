#include "unit/UnitUnderTest.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "VEXA.h"
#include "model/Descriptor.h"
#include "model/UnitSocket.h"

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

std::vector<std::string> JournalLines() {
    std::vector<std::string> lines;
    std::ifstream journal(folder + "/journal");
    for (std::string line; std::getline(journal, line);) lines.push_back(line);
    return lines;
}

nlohmann::json AskUnit(const std::string& request) {
    static const Descriptor connection = ConnectTo(ControlSocketPath(folder));
    std::string line = request + "\n";
    std::replace(line.begin(), line.end() - 1, '\n', ' ');  // of a long literal
    EXPECT_EQ(::send(connection.Get(), line.data(), line.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(line.size()));
    std::string answer;
    for (char letter = 0; ::recv(connection.Get(), &letter, 1, 0) == 1 && letter != '\n';) {
        answer += letter;
    }
    return nlohmann::json::parse(answer, nullptr, false);
}

bool Eventually(const std::function<bool()>& condition) {
    for (int look = 0; look < 30000; ++look) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

}  // namespace vexa::unit
