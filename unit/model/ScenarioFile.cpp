#include "model/ScenarioFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "model/CheckedJson.h"
#include "model/FaultJson.h"
#include "model/SettingsReader.h"

namespace vexa::unit {

namespace {

void ReadLibrary(const CheckedJson& node, LibrarySettings& library) {
    node.RequireKeys({"initFails", "version"});
    node.ReadBool("initFails", library.initFails);
    if (!node.Has("version")) return;
    const CheckedJson version = node.Member("version");
    std::vector<std::uint16_t> numbers;
    version.EachElement([&](const CheckedJson& number) {
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
        throw JsonComplaint("devices[" + std::to_string(index) +
                            "].name: expected a name that no other device has, not \"" +
                            scenario.devices[index].name + "\"");
    }
}

Scenario ReadScenario(const CheckedJson& root) {
    root.RequireKeys({"$schema", "description", "devices", "daq", "applications", "node", "library",
                      "cable", "faults"});
    Scenario scenario;
    if (root.Has("description")) {
        scenario.description = root.Member("description").Text("a line of text");
    }
    if (root.Has("devices")) {
        scenario.devices.clear();
        root.Member("devices").EachElement([&](const CheckedJson& device) {
            ReadDevice(device, scenario.devices.emplace_back());
        });
    }
    if (root.Has("daq")) ReadDaq(root.Member("daq"), scenario.daq);
    if (root.Has("applications")) {
        const CheckedJson applications = root.Member("applications");
        applications.RequireKeys({"DAQ", "SPLASH", "FGEN"});
        applications.EachMember([&](const std::string& name, const CheckedJson& application) {
            ReadApplication(application, scenario.applications[name]);
        });
    }
    if (root.Has("node")) {
        const CheckedJson node = root.Member("node");
        node.RequireKeys({"present"});
        node.ReadBool("present", scenario.nodePresent);
    }
    if (root.Has("library")) ReadLibrary(root.Member("library"), scenario.library);
    if (root.Has("cable")) ReadCable(root.Member("cable"), scenario.cable);
    if (root.Has("faults")) {
        root.Member("faults").EachElement(
            [&](const CheckedJson& fault) { scenario.faults.push_back(ReadFault(fault)); });
    }
    RequireDistinctNames(scenario);
    return scenario;
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
        const auto json = ParseJson(content.str());
        return ReadScenario(CheckedJson(json, ""));
    } catch (const JsonComplaint& complaint) {
        return ScenarioError{path + ": " + complaint.what()};
    }
}

}  // namespace vexa::unit
