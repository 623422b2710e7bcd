// The model by itself: what the devices send, and when, with time as a number; scenario files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "model/Devices.h"
#include "model/Settings.h"
#include "protocol/InitialSync.h"
#include "protocol/Packet.h"

namespace vexa::unit {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
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

TEST(Devices, AStreamSendsSealedPacketsAtItsRateAndEchoes) {
    StreamSensor ramp({.name = "Ramp", .blockSize = 13, .rate = 4, .waveform = Waveform::kRamp},
                      kStart);
    // -10000, -9800 and half a sample; then -9600, -9400.
    EXPECT_THAT(SentUntil(ramp, kStart + milliseconds(500)),
                ElementsAre(Bytes{0xA0, 13, 0, 0, 250, 0, 0, 0, 0xF0, 0xD8, 0xB8, 0xD9, 0},
                            Bytes{0xA0, 13, 1, 0x20, 244, 1, 0, 0, 0x80, 0xDA, 0x48, 0xDB, 0}));

    StreamSensor echoing({.name = "Echo", .rate = 0}, kStart);
    for (const Bytes& bytes : {Bytes{1, 2, 3}, Bytes{}, Bytes(300, 7)}) {
        echoing.Receive(bytes, kStart);
    }
    EXPECT_THAT(SentUntil(echoing, kStart), ElementsAre(Bytes{1, 2, 3}, Bytes(300, 7)));
    StreamSensor mute({.name = "Mute", .rate = 0, .echo = false}, kStart);
    mute.Receive(Bytes{1}, kStart);
    EXPECT_EQ(mute.NextDue(), kNever);
}

TEST(Devices, ARateNeitherDriftsNorCatchesUpOnMoreThanASecond) {
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

TEST(Devices, AHidSensorReportsAnswersInitAndEchoes) {
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
    HidSensor mute({.name = "Mute", .type = 3, .rate = 0, .echo = false}, kStart);
    mute.Receive(Bytes{1}, kStart);
    EXPECT_EQ(mute.NextDue(), kNever);
}

TEST(Devices, TheBoardMeasuresOnceItHasAnsweredTheSync) {
    DaqBoard board({.syncDelayMs = 20, .measurementRate = 50, .checksumErrorEvery = 3}, kStart);
    Bytes sync(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(sync), 77);
    board.Receive(Bytes{0x60, 5, 1, 0, 2}, kStart);  // not of the command class
    board.Receive(sync, kStart);
    board.Receive(Bytes{0x41, 6, 9, 0, 0x33, 1}, kStart);  // a command, while it synchronises
    EXPECT_EQ(board.NextDue(), kStart + milliseconds(20));
    const auto sent = SentUntil(board, kStart + milliseconds(20 + 120));
    ASSERT_EQ(sent.size(), 2U + 6U);
    EXPECT_TRUE(IsInitialSyncReply(sent[0]));
    EXPECT_EQ(sent[0][5], 77);
    EXPECT_EQ(sent[1], (Bytes{0xB8, 7, 1, 0xFC, 0x33, 9, 0}));
    for (std::size_t index = 2; index < sent.size(); ++index) {
        EXPECT_EQ(sent[index].size(), 24U);
        EXPECT_EQ(sent[index][2], index) << "one sequence for all that it sends";
        EXPECT_EQ(HasRightChecksum(sent[index]), index != 4 && index != 7) << index;
    }

    const TimePoint later = kStart + milliseconds(150);
    board.Receive(sync, later);
    EXPECT_EQ(SentUntil(board, later + milliseconds(30)).size(), 3U)
        << "the second reply, and measurements when they were due anyway";
    board.Change({.measurementRate = 200, .measurementSize = 30}, later);
    EXPECT_EQ(SentUntil(board, later + milliseconds(10)).at(1).size(), 30U);

    DaqBoard converter({.source = SourceSettings()}, kStart);
    Bytes samples{0xA0, 12, 77, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    converter.Pass(samples, kStart);  // not synced yet
    converter.Receive(sync, kStart);
    ASSERT_EQ(SentUntil(converter, later).size(), 1U) << "nothing of its own";
    converter.Pass(samples, later);
    samples[2] = 1;  // numbered like all that the board sends
    SealPacket(samples);
    EXPECT_THAT(SentUntil(converter, later), ElementsAre(samples));

    DaqBoard deaf({.acknowledges = false}, kStart);
    sync.back() ^= 1;
    deaf.Receive(sync, kStart);
    EXPECT_EQ(deaf.NextDue(), kNever) << "a damaged sync is none";
}

TEST(Devices, RandomIsTheSameWithTheSameSeed) {
    const auto noise = [](const char* name, std::uint32_t seed) {
        StreamSensor sensor({.name = name, .blockSize = 60, .waveform = Waveform::kNoise}, kStart,
                            seed);
        return SentUntil(sensor, kStart + milliseconds(100)).at(0);
    };
    const auto hits = [](std::uint32_t seed) {
        FaultTable faults(std::vector{Fault{.call = Call::kInit, .chance = 25}}, seed);
        for (int calls = 0; calls < 1000; ++calls) (void)faults.Use(Call::kInit);
        return faults.Faults()[0].hits;
    };
    EXPECT_EQ(noise("A", 1), noise("A", 1));
    EXPECT_NE(noise("A", 1), noise("A", 2));
    EXPECT_EQ(hits(1), hits(1));
    EXPECT_NE(hits(1), hits(2));
    EXPECT_NEAR(static_cast<double>(hits(1)), 250, 60);
}

std::variant<Scenario, ScenarioError> LoadText(const std::string& text) {
    const std::string path = ::testing::TempDir() + "/" + std::to_string(::getpid()) + ".json";
    std::ofstream(path) << text;
    auto loaded = LoadScenario(path, path);
    ::unlink(path.c_str());
    return loaded;
}

TEST(ScenarioFile, TheShippedOnesFitTheSettings) {
    const std::string folder = UNIT_SCENARIO_FOLDER;
    Scenario shipped = std::get<Scenario>(LoadScenario(folder + "/default.json", "default"));
    shipped.description.clear();
    EXPECT_EQ(shipped, Scenario());
    std::ifstream schema(folder + "/scenario.schema.json");
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(schema)), {}), ScenarioSchemaText())
        << "vexa-unit scenarios --schema > unit/scenarios/scenario.schema.json";
}

TEST(ScenarioFile, WhatIsLeftOutIsAsInTheDefaultUnit) {
    Scenario expected;
    expected.devices = {{.name = "A", .type = 2, .attached = false, .blockSize = 8},
                        {.name = "B", .type = 9, .rate = 0.25, .waveform = Waveform::kNoise}};
    expected.daq.checksumErrorEvery = 4;
    expected.devices.push_back({.name = "C", .source = SourceSettings()});
    expected.devices[2].source->serial = "/dev/ttyS0";
    expected.devices[2].source->parity = Parity::kEven;
    expected.daq.source.emplace().iio = "adc";
    expected.applications["FGEN"].program = {.query = {"true", "1"}, .timeoutMs = 5};
    expected.applications["DAQ"].refuses = {1, 2};
    expected.applications["DAQ"].responses = {{3, -1}};
    expected.applications["SPLASH"].strays = {{StrayTime::kBeforeAnswer, 1000, 7, -1}};
    expected.node.present = false;
    expected.cable.flapping = {.outMs = 5};
    expected.faults = {{.call = Call::kNodeRead, .action = FaultAction::kFail, .error = EINTR}};
    expected.faults[0].count = 2;
    expected.timeline = {{.atMs = 1500, .repeatMs = 60000, .times = 3}};
    expected.timeline[0].requests = {{"cable", R"({"in":false,"request":"cable"})"}};
    expected.seed = 7;
    expected.library = {.initFails = true, .majorVersion = 9, .minorVersion = 65535};
    EXPECT_EQ(std::get<Scenario>(LoadText(R"({
        "devices": [{"name": "A", "type": 2, "attached": false},
                    {"name": "B", "type": 9, "rate": 0.25, "waveform": "noise"},
                    {"name": "C", "source": {"serial": "/dev/ttyS0", "parity": "even"}}],
        "daq": {"checksumErrorEvery": 4, "source": {"iio": "adc"}},
        "applications": {"DAQ": {"refuses": [1, 2], "responses": {"3": -1}},
                         "FGEN": {"program": {"query": ["true", "1"], "timeoutMs": 5}},
                         "SPLASH": {"strays": [{"when": "before", "command": 7, "response": -1}]}},
        "cable": {"flap": {"outMs": 5}},
        "faults": [{"call": "node.read", "action": "fail", "errno": "EINTR", "count": 2}],
        "timeline": [{"at": "1.5s", "repeat": "1m", "times": 3, "cable": {"in": false}}],
        "seed": 7,
        "node": {"present": false},
        "library": {"initFails": true, "version": [9, 65535]}})")),
              expected);
}

TEST(ScenarioFile, WhatIsWrongIsNamedWithItsPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {"{\"daq\": ", "line 1, column 9"},
        {R"({"devices": [{"name": "A\u0000B"}]})", "devices[0].name: expected a name"},
        {R"({"devices": [{"name": "Acquisition board"}]})", "[0].name: expected a name that"},
        {R"({"devices": [{"name": "A", "type": 5}]})", "devices[0].type: expected a sensor's type"},
        {R"({"devices": [{"name": "A", "type": 3, "blockSize": 20}]})", "from 8 to 8, not 20"},
        {R"({"devices": [{"name": "A", "rate": 10001}]})", "from 0 to 10000, not 10001"},
        {R"({"devices": [{"name": "A", "echo": 1}]})", ".echo: expected true or false, not 1"},
        {R"({"applications": {"DAQ": {"responses": {"2": 4294967295}}}})", "2: expected a 32-bit"},
        {R"({"faults": [{"call": "data", "action": "fail"}]})", "[0].action: expected \"over"},
        {R"({"devices": [{"name": "A", "source": {"rate": 1}}]})",
         "devices[0].source: expected one of \"iio\""},
        {R"({"devices": [{"name": "A", "source": {"iio": "a", "serial": "b"}}]})", "one of \"iio"},
        {R"({"devices": [{"name": "A", "source": {"file": "a.wav"}}]})", "ends in .csv or .pcapng"},
        {R"({"devices": [{"name": "A", "source": {"serial": "/dev/ttyS0", "baud": 9601}}]})",
         "devices[0].source: expected a rate that serial lines have"},
        {R"({"devices": [{"name": "A", "source": {"iio": "a", "baud": 9600}}]})",
         "source.baud: is of no use here: it goes with \"serial\""},
        {R"({"devices": [{"name": "A", "source": {"file": "a.pcapng", "rate": 5}}]})",
         "source.rate: is of no use here: it goes with \"iio\" and a .csv file"},
        {R"({"devices": [{"name": "A", "source": {"iio": "a", "rate": 0}}]})", "above 0 and up to"},
        {R"({"devices": [{"name": "A", "source": {"iio": "a", "channels": []}}]})",
         "source.channels: expected a list of channels, not []"},
        {R"({"devices": [{"name": "A", "type": 2, "source": {"iio": "a"}}]})", "no HID type with"},
        {R"({"devices": [{"name": "A", "type": 8, "source": {"hidraw": "1:2"}}]})", "2, 3 or 4"},
        {R"({"devices": [{"name": "A", "rate": 5, "source": {"iio": "a"}}]})",
         "devices[0].rate: is of no use here: it goes with a device without a source"},
        {R"({"daq": {"source": {"file": "a.csv"}}})", "daq: expected \"iio\" or \"serial\""},
        {R"({"applications": {"DAQ": {"program": {"query": "systemctl"}}}})",
         "applications.DAQ.program.query: expected a program and its arguments, as a list"},
        {R"({"library": {"version": [3]}})", "library.version: expected a list of two"},
        {R"({"faults": [{"call": "data", "action": "corrupt", "for": "A"}]})",
         R"(faults[0].for: there is no device "A"; there are "Accelerometer")"},
        {R"({"timeline": [{"at": "5"}, {"at": "5x"}]})", "timeline[1].at: expected a time"},
        {R"({"daq": {"present": true, "present": false}})", "key \"present\" is given twice"},
        {R"({"timeline": [{"at": "5"}]})", "timeline[0]: expected a change"},
        {R"({"timeline": [{"at": "5s", "times": 2}]})", "[0].times: is of no use here"},
        {R"({"timeline": [{"at": "2s", "detach": "A"}, {"at": "1s", "attach": {"name": "A"}}]})",
         "timeline[1].attach.name: there is no device \"A\"; a new one needs a \"type\""},
        {R"({"timeline": [{"at": "1s", "applications": {"DAQ": {"delayMs": -1}}}]})",
         "timeline[0].applications.DAQ.delayMs: expected a whole number"},
    };
    for (const auto& [text, complaint] : cases) {
        const std::string error = std::get<ScenarioError>(LoadText(text)).text;
        EXPECT_THAT(error, HasSubstr(complaint)) << text;
        EXPECT_THAT(error, ::testing::ContainsRegex("^[^\n]*\\.json: [^\n]*$")) << text;
    }
}

}  // namespace
}  // namespace vexa::unit
