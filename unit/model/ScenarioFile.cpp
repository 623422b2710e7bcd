#include "model/ScenarioFile.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <utility>

#include "model/ScenarioNode.h"

namespace vexa::unit {

namespace {

constexpr std::uint32_t kMaxDelayMs = 600000;
constexpr std::uint32_t kMaxUnsigned = std::numeric_limits<std::uint32_t>::max();

constexpr std::array<std::pair<std::string_view, Waveform>, 4> kWaveforms = {
    {{"sine", Waveform::kSine},
     {"ramp", Waveform::kRamp},
     {"square", Waveform::kSquare},
     {"noise", Waveform::kNoise}}};

void ReadWaveform(const ScenarioNode& node, Waveform& into) {
    if (!node.Has("waveform")) return;
    constexpr std::string_view expected = R"("sine", "ramp", "square" or "noise")";
    const ScenarioNode member = node.Member("waveform");
    const std::string text = member.Text(expected);
    for (const auto& [name, waveform] : kWaveforms) {
        if (text == name) {
            into = waveform;
            return;
        }
    }
    member.Complain(expected);
}

DeviceSettings ReadDevice(const ScenarioNode& node) {
    node.RequireKeys({"name", "type", "attached", "blockSize", "rate", "waveform", "echo"});
    DeviceSettings device;
    node.ReadName("name", true, device.name);
    node.ReadUnsigned("type", 0, 255, device.type);
    if (device.type == kDaqType) {
        node.Member("type").Complain("a sensor's type (the acquisition board, 5, is \"daq\")");
    }
    const bool hid = IsHidType(device.type);
    if (hid) device.blockSize = kHidReportSize;
    node.ReadBool("attached", device.attached);
    node.ReadUnsigned("blockSize", hid ? kHidReportSize : kMinBlockSize,
                      hid ? kHidReportSize : kMaxBlockSize, device.blockSize);
    node.ReadRate("rate", device.rate);
    ReadWaveform(node, device.waveform);
    node.ReadBool("echo", device.echo);
    return device;
}

DaqSettings ReadDaq(const ScenarioNode& node) {
    node.RequireKeys({"name", "present", "answersSync", "syncDelayMs", "measurementRate",
                      "measurementSize", "checksumErrorEvery", "acknowledges"});
    DaqSettings daq;
    node.ReadName("name", false, daq.name);
    node.ReadBool("present", daq.present);
    node.ReadBool("answersSync", daq.answersSync);
    node.ReadUnsigned("syncDelayMs", 0, kMaxDelayMs, daq.syncDelayMs);
    node.ReadRate("measurementRate", daq.measurementRate);
    node.ReadUnsigned("measurementSize", kMinBlockSize, kMaxMeasurementSize, daq.measurementSize);
    node.ReadUnsigned("checksumErrorEvery", 0, kMaxUnsigned, daq.checksumErrorEvery);
    node.ReadBool("acknowledges", daq.acknowledges);
    return daq;
}

std::uint32_t ReadCommandKey(const std::string& key, const ScenarioNode& node) {
    std::uint32_t command = 0;
    const char* const end = key.data() + key.size();
    const auto [stopped, error] = std::from_chars(key.data(), end, command);
    if (error != std::errc() || stopped != end) node.Complain("a command number as its key");
    return command;
}

void ReadApplication(const ScenarioNode& node, ApplicationSettings& application) {
    node.RequireKeys({"holds", "delayMs", "silent", "refuses", "responses", "initFails"});
    node.ReadBool("holds", application.holds);
    node.ReadUnsigned("delayMs", 0, kMaxDelayMs, application.delayMs);
    node.ReadBool("silent", application.silent);
    node.ReadBool("initFails", application.initFails);
    if (node.Has("refuses")) {
        node.Member("refuses").EachElement([&](const ScenarioNode& command) {
            application.refuses.insert(command.Unsigned(0, kMaxUnsigned));
        });
    }
    if (node.Has("responses")) {
        node.Member("responses").EachMember([&](const std::string& key, const ScenarioNode& value) {
            application.responses[ReadCommandKey(key, value)] = value.Signed32();
        });
    }
}

void ReadLibrary(const ScenarioNode& node, LibrarySettings& library) {
    node.RequireKeys({"initFails", "version"});
    node.ReadBool("initFails", library.initFails);
    if (!node.Has("version")) return;
    const ScenarioNode version = node.Member("version");
    std::vector<std::uint16_t> numbers;
    version.EachElement([&](const ScenarioNode& number) {
        numbers.push_back(static_cast<std::uint16_t>(number.Unsigned(0, 65535)));
    });
    if (numbers.size() != 2) version.Complain("a list of two numbers, major and minor");
    library.majorVersion = numbers[0];
    library.minorVersion = numbers[1];
}

// A device is asked for by its name, so no two may share one.
void RequireDistinctNames(const Scenario& scenario) {
    std::set<std::string> names{scenario.daq.name};
    for (std::size_t index = 0; index < scenario.devices.size(); ++index) {
        if (names.insert(scenario.devices[index].name).second) continue;
        throw ScenarioComplaint("devices[" + std::to_string(index) +
                                "].name: expected a name that no other device has, not \"" +
                                scenario.devices[index].name + "\"");
    }
}

Scenario ReadScenario(const ScenarioNode& root) {
    root.RequireKeys({"devices", "daq", "applications", "node", "library"});
    Scenario scenario;
    if (root.Has("devices")) {
        scenario.devices.clear();
        root.Member("devices").EachElement(
            [&](const ScenarioNode& device) { scenario.devices.push_back(ReadDevice(device)); });
    }
    if (root.Has("daq")) scenario.daq = ReadDaq(root.Member("daq"));
    if (root.Has("applications")) {
        const ScenarioNode applications = root.Member("applications");
        applications.RequireKeys({"DAQ", "SPLASH", "FGEN"});
        applications.EachMember([&](const std::string& name, const ScenarioNode& application) {
            ReadApplication(application, scenario.applications[name]);
        });
    }
    if (root.Has("node")) {
        const ScenarioNode node = root.Member("node");
        node.RequireKeys({"present"});
        node.ReadBool("present", scenario.nodePresent);
    }
    if (root.Has("library")) ReadLibrary(root.Member("library"), scenario.library);
    RequireDistinctNames(scenario);
    return scenario;
}

// The parser's own text starts with its name for the error in brackets, which tells a user nothing.
std::string ParserText(const std::exception& error) {
    const std::string text = error.what();
    const auto end = text.find("] ");
    return end == std::string::npos ? text : text.substr(end + 2);
}

}  // namespace

std::variant<Scenario, ScenarioError> LoadScenario(const std::string& path) {
    errno = 0;
    std::ifstream file(path);
    std::ostringstream content;
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(content << file.rdbuf())) ||
        file.bad() || errno == EISDIR) {
        return ScenarioError{path + ": cannot read it: " + std::strerror(errno)};
    }
    try {
        const auto json = nlohmann::json::parse(content.str());
        return ReadScenario(ScenarioNode(json, ""));
    } catch (const ScenarioComplaint& complaint) {
        return ScenarioError{path + ": " + complaint.what()};
    } catch (const nlohmann::json::exception& error) {
        return ScenarioError{path + ": not valid JSON: " + ParserText(error)};
    }
}

}  // namespace vexa::unit
