#include "model/Requests.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "model/Settings.h"

namespace vexa::unit {

namespace {

std::string ListOf(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "\"" : ", \"") + name + "\"";
    return text.empty() ? "none" : text;
}

std::vector<std::string> DeviceNames(const UnitSettings& now) {
    std::vector<std::string> names;
    for (const auto& device : now.devices) names.push_back(device.name);
    names.push_back(now.daq.name);
    return names;
}

std::vector<std::string> ApplicationNames(const UnitSettings& now) {
    std::vector<std::string> names;
    for (const auto& [name, settings] : now.applications) names.push_back(name);
    return names;
}

[[nodiscard]] bool Contains(const std::vector<std::string>& names, const std::string& name) {
    return std::ranges::find(names, name) != names.end();
}

const DeviceSettings* FindDevice(const UnitSettings& now, const std::string& name) {
    const auto found = std::ranges::find(now.devices, name, &DeviceSettings::name);
    return found == now.devices.end() ? nullptr : &*found;
}

// The board is attached and detached by its name, like a sensor.
Change BoardPresent(const UnitSettings& now, bool present) {
    DaqSettings daq = now.daq;
    daq.present = present;
    return daq;
}

Change Attach(const CheckedJson& request, const UnitSettings& now) {
    const std::string name = request.Member("name").Name();
    if (name == now.daq.name) {
        if (request.Value().size() == 1) return BoardPresent(now, true);
        request.ComplainAbout("name", "the acquisition board is changed with \"daq\"");
    }
    const DeviceSettings* const known = FindDevice(now, name);
    if (known == nullptr && !request.Has("type")) {
        request.ComplainAbout("name",
                              "there is no device \"" + name + "\"; a new one needs a \"type\"");
    }
    DeviceSettings device = known == nullptr ? DeviceSettings{} : *known;
    device.attached = true;
    ReadSettings(request, device);
    return device;
}

Change Detach(const CheckedJson& request, const UnitSettings& now) {
    request.RequireKeys({"name"});
    const std::string name = request.Member("name").Name();
    if (name == now.daq.name) return BoardPresent(now, false);
    RequireDevice(request, "name", name, now);
    DeviceSettings device = *FindDevice(now, name);
    device.attached = false;
    return device;
}

Change ChangeApplication(const CheckedJson& request, const UnitSettings& now) {
    const std::string name = request.Member("name").Name();
    const auto known = now.applications.find(name);
    if (known == now.applications.end()) {
        request.ComplainAbout("name", "there is no application \"" + name + "\"; there are " +
                                          ListOf(ApplicationNames(now)));
    }
    Json settings = request.Value();
    settings.erase("name");
    ApplicationSettings changed = known->second;
    ReadSettings(CheckedJson(settings, request.Path()), changed);
    return std::pair(name, std::move(changed));
}

Change ChangeBoard(const CheckedJson& request, const UnitSettings& now) {
    if (request.Has("name")) {
        request.ComplainAbout("name", "the board keeps its name while the unit runs");
    }
    DaqSettings daq = now.daq;
    ReadSettings(request, daq);
    return daq;
}

Change ChangeCable(const CheckedJson& request) {
    CableSettings cable;
    ReadSettings(request, cable);
    if (request.Value().empty()) request.Complain("\"in\" or \"flap\"");
    return cable;
}

Change SetFault(const CheckedJson& request, const UnitSettings& now) {
    Fault fault;
    ReadSettings(request, fault);
    CheckTarget(request, fault, now);
    return fault;
}

// The settings that later requests of a timeline refer to.
class Rehearsal {
  public:
    explicit Rehearsal(UnitSettings& settings_) : settings(settings_) {}

    void operator()(const DeviceSettings& device) const {
        std::erase_if(settings.devices,
                      [&](const auto& other) { return other.name == device.name; });
        settings.devices.push_back(device);
    }
    void operator()(const DaqSettings& daq) const { settings.daq = daq; }
    void operator()(const std::pair<std::string, ApplicationSettings>& application) const {
        settings.applications[application.first] = application.second;
    }
    void operator()(const CableSettings&) const {}
    void operator()(const Fault&) const {}

  private:
    UnitSettings& settings;
};

}  // namespace

void RequireDevice(const CheckedJson& json, std::string_view key, const std::string& name,
                   const UnitSettings& now) {
    const auto names = DeviceNames(now);
    if (Contains(names, name)) return;
    json.ComplainAbout(key, "there is no device \"" + name + "\"; there are " + ListOf(names));
}

void CheckTarget(const CheckedJson& json, const Fault& fault, const UnitSettings& now) {
    if (fault.target.empty()) return;
    const bool ofApplication = IsApplicationCall(fault.call);
    const auto names = ofApplication ? ApplicationNames(now) : DeviceNames(now);
    if (Contains(names, fault.target) || (fault.later && !ofApplication)) return;
    json.ComplainAbout(
        "for", (ofApplication ? "there is no application \"" : "there is no device \"") +
                   fault.target + "\"; there are " + ListOf(names) +
                   (ofApplication ? "" : "; give \"later\": true for one that is attached later"));
}

std::optional<Change> ReadChange(std::string_view verb, const CheckedJson& request,
                                 const UnitSettings& now) {
    if (verb == "attach") return Attach(request, now);
    if (verb == "detach") return Detach(request, now);
    if (verb == "cable") return ChangeCable(request);
    if (verb == "app") return ChangeApplication(request, now);
    if (verb == "daq") return ChangeBoard(request, now);
    if (verb == "fault.set") return SetFault(request, now);
    return std::nullopt;
}

void CheckTimeline(const Scenario& scenario) {
    UnitSettings settings{scenario.devices, scenario.daq, scenario.applications};
    std::vector<std::pair<std::uint32_t, std::size_t>> order;
    for (std::size_t index = 0; index < scenario.timeline.size(); ++index) {
        order.emplace_back(scenario.timeline[index].atMs, index);
    }
    std::ranges::sort(order);
    for (const auto& [atMs, index] : order) {
        const std::string step = "timeline[" + std::to_string(index) + "]";
        if (scenario.timeline[index].requests.empty()) {
            throw JsonError(step + ": expected a change, such as \"cable\"");
        }
        for (const auto& [key, line] : scenario.timeline[index].requests) {
            Json request = ParseJson(line);
            const std::string verb = request["request"];
            request.erase("request");
            const CheckedJson members(request, step + "." + key);
            if (const auto change = ReadChange(verb, members, settings)) {
                std::visit(Rehearsal(settings), *change);
            } else if (members.Has("call")) {
                (void)ReadCall(members, "call");
            }
        }
    }
}

}  // namespace vexa::unit
