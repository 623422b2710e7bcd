// The model by itself: what the devices send, and when, with time as a number; scenario files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <numeric>
#include <vector>

#include "model/Devices.h"
#include "model/Settings.h"
#include "protocol/InitialSync.h"
#include "protocol/Packet.h"

namespace vexa::unit {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

const TimePoint kStart = TimePoint{} + std::chrono::hours(1);

// Lets `device` run up to `now`; what it sent, in order.
std::vector<Bytes> SentUntil(DeviceModel& device, TimePoint now) {
    std::vector<Bytes> sent;
    while (device.NextDue() <= now) {
        const auto block = device.Next(std::max(device.NextDue(), kStart));
        sent.emplace_back(block.begin(), block.end());
    }
    return sent;
}

bool ChecksumIsRight(const Bytes& packet) {
    const unsigned all = std::accumulate(packet.begin(), packet.end(), 0U);
    return static_cast<std::uint8_t>(all - packet[3]) == packet[3];
}

TEST(StreamSensor, SendsSealedPacketsAtItsRate) {
    StreamSensor sensor({.name = "Ramp", .blockSize = 13, .rate = 4, .waveform = Waveform::kRamp},
                        kStart);
    const auto sent = SentUntil(sensor, kStart + milliseconds(1000));
    ASSERT_EQ(sent.size(), 4U);
    for (std::size_t index = 0; index < sent.size(); ++index) {
        EXPECT_EQ(Bytes(sent[index].begin(), sent[index].begin() + 3),
                  (Bytes{0xA0, 13, static_cast<std::uint8_t>(index)}));
        EXPECT_TRUE(ChecksumIsRight(sent[index]));
        EXPECT_EQ(LoadLe32(sent[index], 4), 250 * (index + 1));
    }
    // -10000, -9800 and half a sample; then -9600.
    EXPECT_EQ(Bytes(sent[0].begin() + 8, sent[0].end()), (Bytes{0xF0, 0xD8, 0xB8, 0xD9, 0}));
    EXPECT_EQ(Bytes(sent[1].begin() + 8, sent[1].begin() + 10), (Bytes{0x80, 0xDA}));
}

TEST(StreamSensor, EchoesEachWriteInOneBlockUnlessToldNotTo) {
    StreamSensor echoing({.name = "Echo", .rate = 0}, kStart);
    StreamSensor mute({.name = "Mute", .rate = 0, .echo = false}, kStart);
    for (StreamSensor* sensor : {&echoing, &mute}) {
        sensor->Receive(Bytes{1, 2, 3}, kStart);
        sensor->Receive(Bytes{}, kStart);
        sensor->Receive(Bytes(300, 7), kStart);
    }
    EXPECT_EQ(SentUntil(echoing, kStart), (std::vector<Bytes>{{1, 2, 3}, Bytes(300, 7)}));
    EXPECT_EQ(mute.NextDue(), kNever);
    HidSensor muteHid({.name = "Hid", .type = 3, .rate = 0, .echo = false}, kStart);
    muteHid.Receive(Bytes{1}, kStart);
    EXPECT_EQ(muteHid.NextDue(), kNever);
}

TEST(Pacer, NeitherDriftsNorCatchesUpOnMoreThanASecond) {
    Pacer pacer(3);
    pacer.Start(kStart);
    // Each block is made 100 ms late, and yet the thousandth is due when it should be.
    for (int made = 0; made < 999; ++made) pacer.Advance(pacer.Due() + milliseconds(100));
    const auto due = std::chrono::duration_cast<milliseconds>(pacer.Due() - kStart);
    EXPECT_NEAR(static_cast<double>(due.count()), 333333, 1);

    const TimePoint afterStall = kStart + std::chrono::hours(2);
    int overdue = 0;
    for (; pacer.Due() <= afterStall; ++overdue) pacer.Advance(afterStall);
    EXPECT_EQ(overdue, 1 + 3);  // the one that was waiting, and a second's worth
}

TEST(HidSensor, ReportsAnswersInitAndEchoes) {
    HidSensor sensor({.name = "Hid", .type = 3, .rate = 100, .waveform = Waveform::kSquare},
                     kStart);
    sensor.Receive(Bytes{0x55, 9, 21, 22, 23, 24, 25, 26, 27}, kStart);  // init, one byte too many
    sensor.Receive(Bytes{0x95, 1, 2}, kStart);
    const auto sent = SentUntil(sensor, kStart + milliseconds(650));
    ASSERT_EQ(sent.size(), 2U + 65U);
    EXPECT_EQ(sent[0], (Bytes{0x80, 3, 21, 22, 23, 24, 25, 26}));
    EXPECT_EQ(sent[1], (Bytes{0x95, 1, 2, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sent[2], (Bytes{0, 3, 0x10, 0x27, 10, 0, 0, 0}));
    EXPECT_EQ(sent[66][0], 0) << "the top bits are not the counter's";
}

TEST(DaqBoard, MeasuresOnlyOnceItHasAnsweredTheSync) {
    DaqBoard board({.syncDelayMs = 20, .measurementRate = 50, .checksumErrorEvery = 3}, kStart);
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    board.Receive(Bytes{0x60, 5, 1, 0, 2}, kStart);  // not of the command class
    board.Receive(request, kStart);
    board.Receive(Bytes{0x41, 6, 9, 0, 0x33, 1}, kStart);  // a command, while it synchronises
    EXPECT_EQ(board.NextDue(), kStart + milliseconds(20));
    const auto sent = SentUntil(board, kStart + milliseconds(20 + 120));
    ASSERT_EQ(sent.size(), 2U + 6U);

    EXPECT_EQ(sent[0].size(), kInitialSyncReplySize);
    EXPECT_EQ(sent[0][5], 77);
    EXPECT_TRUE(ChecksumIsRight(sent[0]));
    EXPECT_EQ(sent[1],
              (Bytes{0xB8, 7, 1, static_cast<std::uint8_t>(0xB8 + 7 + 1 + 0x33 + 9), 0x33, 9, 0}));
    for (std::size_t index = 2; index < sent.size(); ++index) {
        EXPECT_EQ(sent[index].size(), 24U);
        EXPECT_EQ(sent[index][2], index) << "one sequence for all that it sends";
        EXPECT_EQ(ChecksumIsRight(sent[index]), index != 4 && index != 7) << index;
    }
}

TEST(DaqBoard, FollowsItsSettingsAndASecondSync) {
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    DaqBoard board({.syncDelayMs = 0, .measurementRate = 10}, kStart);
    board.Receive(request, kStart);
    EXPECT_EQ(SentUntil(board, kStart).size(), 1U);
    board.Receive(request, kStart + milliseconds(50));
    EXPECT_EQ(SentUntil(board, kStart + milliseconds(100)).size(), 2U)
        << "the second reply, and the measurement when it was due anyway";
    board.Change({.measurementRate = 100, .measurementSize = 30}, kStart + milliseconds(100));
    const auto sent = SentUntil(board, kStart + milliseconds(120));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].size(), 30U);
}

TEST(DaqBoard, TakesNoDamagedSync) {
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    request.back() ^= 1;
    DaqBoard board({.acknowledges = false}, kStart);
    board.Receive(request, kStart);
    EXPECT_EQ(board.NextDue(), kNever);
}

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
