#include "model/SettingsReader.h"

#include <array>
#include <charconv>
#include <limits>
#include <utility>

namespace vexa::unit {

namespace {

constexpr std::uint32_t kMaxUnsigned = std::numeric_limits<std::uint32_t>::max();

constexpr std::array<std::pair<std::string_view, Waveform>, 4> kWaveforms = {
    {{"sine", Waveform::kSine},
     {"ramp", Waveform::kRamp},
     {"square", Waveform::kSquare},
     {"noise", Waveform::kNoise}}};

constexpr std::array<std::pair<std::string_view, StrayTime>, 3> kStrayTimes = {
    {{"interval", StrayTime::kInterval},
     {"before", StrayTime::kBeforeAnswer},
     {"after", StrayTime::kAfterAnswer}}};

Stray ReadStray(const CheckedJson& node) {
    node.RequireKeys({"when", "intervalMs", "command", "response"});
    Stray stray;
    node.ReadChoice<StrayTime>("when", kStrayTimes, stray.when);
    node.ReadUnsigned("intervalMs", 1, kMaxDelayMs, stray.intervalMs);
    stray.command = node.Required("command").Unsigned(0, kMaxUnsigned);
    stray.response = node.Required("response").Signed32();
    return stray;
}

std::uint32_t ReadCommandKey(const std::string& key, const CheckedJson& node) {
    std::uint32_t command = 0;
    const char* const end = key.data() + key.size();
    const auto [stopped, error] = std::from_chars(key.data(), end, command);
    if (error != std::errc() || stopped != end) node.Complain("a command number as its key");
    return command;
}

}  // namespace

void ReadDevice(const CheckedJson& node, DeviceSettings& device) {
    node.RequireKeys({"name", "type", "attached", "blockSize", "rate", "waveform", "echo"});
    node.ReadName("name", true, device.name);
    node.ReadUnsigned("type", 0, 255, device.type);
    if (device.type == kDaqType) {
        node.Member("type").Complain("a sensor's type (the acquisition board, 5, is \"daq\")");
    }
    const bool hid = IsHidType(device.type);
    if (hid) device.blockSize = kHidReportSize;
    if (!hid && device.blockSize < kMinBlockSize) device.blockSize = DeviceSettings().blockSize;
    node.ReadBool("attached", device.attached);
    node.ReadUnsigned("blockSize", hid ? kHidReportSize : kMinBlockSize,
                      hid ? kHidReportSize : kMaxBlockSize, device.blockSize);
    node.ReadRate("rate", device.rate);
    node.ReadChoice<Waveform>("waveform", kWaveforms, device.waveform);
    node.ReadBool("echo", device.echo);
}

void ReadDaq(const CheckedJson& node, DaqSettings& daq) {
    node.RequireKeys({"name", "present", "answersSync", "syncDelayMs", "measurementRate",
                      "measurementSize", "checksumErrorEvery", "acknowledges"});
    node.ReadName("name", false, daq.name);
    node.ReadBool("present", daq.present);
    node.ReadBool("answersSync", daq.answersSync);
    node.ReadUnsigned("syncDelayMs", 0, kMaxDelayMs, daq.syncDelayMs);
    node.ReadRate("measurementRate", daq.measurementRate);
    node.ReadUnsigned("measurementSize", kMinBlockSize, kMaxMeasurementSize, daq.measurementSize);
    node.ReadUnsigned("checksumErrorEvery", 0, kMaxUnsigned, daq.checksumErrorEvery);
    node.ReadBool("acknowledges", daq.acknowledges);
}

void ReadApplication(const CheckedJson& node, ApplicationSettings& application) {
    node.RequireKeys({"holds", "delayMs", "silent", "refuses", "responses", "initFails", "strays"});
    node.ReadBool("holds", application.holds);
    node.ReadUnsigned("delayMs", 0, kMaxDelayMs, application.delayMs);
    node.ReadBool("silent", application.silent);
    node.ReadBool("initFails", application.initFails);
    if (node.Has("refuses")) {
        application.refuses.clear();
        node.Member("refuses").EachElement([&](const CheckedJson& command) {
            application.refuses.insert(command.Unsigned(0, kMaxUnsigned));
        });
    }
    if (node.Has("responses")) {
        application.responses.clear();
        node.Member("responses").EachMember([&](const std::string& key, const CheckedJson& value) {
            application.responses[ReadCommandKey(key, value)] = value.Signed32();
        });
    }
    if (node.Has("strays")) {
        application.strays.clear();
        node.Member("strays").EachElement(
            [&](const CheckedJson& stray) { application.strays.push_back(ReadStray(stray)); });
    }
}

void ReadCable(const CheckedJson& node, CableSettings& cable) {
    node.RequireKeys({"in", "flap"});
    cable.flapping.reset();
    node.ReadBool("in", cable.in);
    if (!node.Has("flap")) return;
    const CheckedJson flap = node.Member("flap");
    flap.RequireKeys({"inMs", "outMs", "times"});
    auto& flapping = cable.flapping.emplace();
    flap.ReadUnsigned("inMs", 1, kMaxDelayMs, flapping.inMs);
    flap.ReadUnsigned("outMs", 1, kMaxDelayMs, flapping.outMs);
    flap.ReadUnsigned("times", 0, kMaxUnsigned, flapping.times);
}

std::string_view WaveformName(Waveform waveform) { return NameIn(kWaveforms, waveform); }

std::string_view StrayTimeName(StrayTime when) { return NameIn(kStrayTimes, when); }

}  // namespace vexa::unit
