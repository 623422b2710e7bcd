#include "model/ControlRequests.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "model/CheckedJson.h"
#include "model/FaultJson.h"
#include "model/SettingsReader.h"
#include "model/StateJson.h"
#include "model/Unit.h"

namespace vexa::unit {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// A request without its verb, which is the only key that all have.
using Handler = void (*)(Unit& unit, const json& request, ordered_json& answer);

std::string NameOf(const CheckedJson& node) {
    std::string name;
    node.ReadName("name", true, name);
    return name;
}

// The board is attached and taken away under its name, like a sensor.
bool AttachBoard(Unit& unit, const std::string& name, bool present) {
    DaqSettings daq = unit.Vexa().Daq();
    if (name != daq.name) return false;
    daq.present = present;
    unit.Vexa().ChangeDaq(daq);
    return true;
}

void Attach(Unit& unit, const json& request, ordered_json& /*answer*/) {
    const CheckedJson node(request, "");
    const std::string name = NameOf(node);
    if (request.size() == 1 && AttachBoard(unit, name, true)) return;
    if (name == unit.Vexa().Daq().name) {
        throw JsonComplaint("name: the acquisition board is changed with \"daq\"");
    }
    const auto devices = unit.Vexa().Devices();
    const auto known = std::ranges::find(devices, name, &DeviceSettings::name);
    if (known == devices.end() && !request.contains("type")) {
        throw JsonComplaint("name: there is no device \"" + name +
                            "\"; a new one needs a \"type\"");
    }
    DeviceSettings device = known == devices.end() ? DeviceSettings{} : *known;
    device.attached = true;
    ReadDevice(node, device);
    unit.Vexa().ChangeDevice(device);
}

void Detach(Unit& unit, const json& request, ordered_json& /*answer*/) {
    const CheckedJson node(request, "");
    node.RequireKeys({"name"});
    const std::string name = NameOf(node);
    if (AttachBoard(unit, name, false)) return;
    const auto devices = unit.Vexa().Devices();
    const auto known = std::ranges::find(devices, name, &DeviceSettings::name);
    if (known == devices.end()) throw JsonComplaint("name: there is no device \"" + name + "\"");
    DeviceSettings device = *known;
    device.attached = false;
    unit.Vexa().ChangeDevice(device);
}

void ChangeTheCable(Unit& unit, const json& request, ordered_json& /*answer*/) {
    CableSettings settings;
    ReadCable(CheckedJson(request, ""), settings);
    unit.ChangeCable(settings);
}

void ChangeTheApplication(Unit& unit, const json& request, ordered_json& /*answer*/) {
    const std::string name = NameOf(CheckedJson(request, ""));
    const auto applications = unit.Cri().Applications();
    const auto known = applications.find(name);
    if (known == applications.end()) {
        throw JsonComplaint("name: expected \"DAQ\", \"SPLASH\" or \"FGEN\", not \"" + name + "\"");
    }
    json change = request;
    change.erase("name");
    ApplicationSettings settings = known->second;
    ReadApplication(CheckedJson(change, ""), settings);
    unit.Cri().ChangeApplication(name, settings);
}

void ChangeTheBoard(Unit& unit, const json& request, ordered_json& /*answer*/) {
    if (request.contains("name")) {
        throw JsonComplaint("name: the board keeps its name while the unit runs");
    }
    DaqSettings daq = unit.Vexa().Daq();
    ReadDaq(CheckedJson(request, ""), daq);
    unit.Vexa().ChangeDaq(daq);
}

void SetFault(Unit& unit, const json& request, ordered_json& answer) {
    answer["id"] = unit.Faults().Set(ReadFault(CheckedJson(request, "")));
}

void ClearFaults(Unit& unit, const json& request, ordered_json& answer) {
    const CheckedJson node(request, "");
    node.RequireKeys({"id", "call"});
    std::size_t cleared = 0;
    if (std::uint32_t id = 0; node.Has("id")) {
        node.ReadUnsigned("id", 1, UINT32_MAX, id);
        cleared = unit.Faults().Clear(id);
        if (cleared == 0) throw JsonComplaint("id: there is no fault " + std::to_string(id));
    } else {
        cleared = node.Has("call") ? unit.Faults().Clear(ReadCall(node, "call"))
                                   : unit.Faults().ClearAll();
    }
    answer["cleared"] = cleared;
}

void ListFaults(Unit& unit, const json& request, ordered_json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["faults"] = FaultsToJson(unit.Faults().Faults());
}

void ListCalls(Unit& unit, const json& request, ordered_json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["calls"] = CallsToJson(unit.Faults().Uses());
}

void TellState(Unit& unit, const json& request, ordered_json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer.update(StateToJson(unit));
}

struct RequestKind {
    std::string_view verb;
    Handler handle;
};

constexpr std::array<RequestKind, 10> kRequests = {{{"attach", Attach},
                                                    {"detach", Detach},
                                                    {"cable", ChangeTheCable},
                                                    {"app", ChangeTheApplication},
                                                    {"daq", ChangeTheBoard},
                                                    {"fault.set", SetFault},
                                                    {"fault.clear", ClearFaults},
                                                    {"fault.list", ListFaults},
                                                    {"calls", ListCalls},
                                                    {"state", TellState}}};

// Takes the verb out of the request.
Handler TakeVerb(json& request) {
    const CheckedJson node(request, "");
    if (!request.is_object()) node.Complain("an object");
    std::vector<std::string_view> verbs;
    for (const auto& kind : kRequests) verbs.push_back(kind.verb);
    const Handler handle = kRequests[node.Required("request").Choice(verbs)].handle;
    request.erase("request");
    return handle;
}

}  // namespace

std::string AnswerControlLine(Unit& unit, const std::string& line) {
    ordered_json answer;
    try {
        json request = ParseJson(line);
        const Handler handle = TakeVerb(request);
        answer["ok"] = true;
        handle(unit, request, answer);
    } catch (const std::exception& error) {
        answer = {{"ok", false}, {"error", error.what()}};
    }
    // What a client sent may be quoted in an error, and need not be valid text.
    return answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace vexa::unit
