#include "model/ControlRequests.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "model/Settings.h"
#include "model/Unit.h"

namespace vexa::unit {

namespace {

// Carries out a request, from which the verb has been removed.
using Handler = void (*)(Unit& unit, const Json& request, Json& answer);

Json ToJson(const StreamState& stream) {
    return {{"stream", stream.handle},       {"device", stream.deviceName},
            {"attached", !stream.unplugged}, {"blocks", stream.counts.blocks},
            {"taken", stream.counts.taken},  {"refused", stream.counts.refused},
            {"writes", stream.counts.writes}};
}

Json ToJson(const CableState& cable) {
    Json json = SettingsToJson(cable.settings);
    json["hostConnected"] = cable.hostConnected;
    json["hosts"] = cable.counts.hosts;
    json["bytesFromHost"] = cable.counts.bytesFromHost;
    json["bytesToHost"] = cable.counts.bytesToHost;
    return json;
}

Json FaultsToJson(const std::vector<FaultRecord>& faults) {
    Json json = Json::array();
    for (const auto& record : faults) {
        Json item = {{"id", record.id}};
        item.update(SettingsToJson(record.fault));
        item["hits"] = record.hits;
        json.push_back(std::move(item));
    }
    return json;
}

Json CallsToJson(const CallCounts& counts) {
    Json json;
    for (std::size_t index = 0; index < kCallCount; ++index) {
        json[std::string(kCalls[index].name)] = counts[index];
    }
    return json;
}

std::string NameIn(const Json& request) { return CheckedJson(request, "").Member("name").Name(); }

// The board is attached and detached by its name, like a sensor.
bool AttachBoard(Unit& unit, const std::string& name, bool present) {
    DaqSettings daq = unit.Vexa().Daq();
    if (name != daq.name) return false;
    daq.present = present;
    unit.Vexa().ChangeDaq(daq);
    return true;
}

void Attach(Unit& unit, const Json& request, Json& /*answer*/) {
    const std::string name = NameIn(request);
    if (request.size() == 1 && AttachBoard(unit, name, true)) return;
    if (name == unit.Vexa().Daq().name) {
        throw JsonError("name: the acquisition board is changed with \"daq\"");
    }
    const auto devices = unit.Vexa().Devices();
    const auto known = std::ranges::find(devices, name, &DeviceSettings::name);
    if (known == devices.end() && !request.contains("type")) {
        throw JsonError("name: there is no device \"" + name + "\"; a new one needs a \"type\"");
    }
    DeviceSettings device = known == devices.end() ? DeviceSettings{} : *known;
    device.attached = true;
    ReadSettings(CheckedJson(request, ""), device);
    unit.Vexa().ChangeDevice(device);
}

void Detach(Unit& unit, const Json& request, Json& /*answer*/) {
    CheckedJson(request, "").RequireKeys({"name"});
    const std::string name = NameIn(request);
    if (AttachBoard(unit, name, false)) return;
    const auto devices = unit.Vexa().Devices();
    const auto known = std::ranges::find(devices, name, &DeviceSettings::name);
    if (known == devices.end()) throw JsonError("name: there is no device \"" + name + "\"");
    DeviceSettings device = *known;
    device.attached = false;
    unit.Vexa().ChangeDevice(device);
}

void ChangeCable(Unit& unit, const Json& request, Json& /*answer*/) {
    CableSettings settings;
    ReadSettings(CheckedJson(request, ""), settings);
    unit.ChangeCable(settings);
}

void ChangeApplication(Unit& unit, const Json& request, Json& /*answer*/) {
    const std::string name = NameIn(request);
    const auto applications = unit.Cri().Applications();
    const auto known = applications.find(name);
    if (known == applications.end()) {
        throw JsonError("name: expected \"DAQ\", \"SPLASH\" or \"FGEN\", not \"" + name + "\"");
    }
    Json change = request;
    change.erase("name");
    ApplicationSettings settings = known->second;
    ReadSettings(CheckedJson(change, ""), settings);
    unit.Cri().ChangeApplication(name, settings);
}

void ChangeBoard(Unit& unit, const Json& request, Json& /*answer*/) {
    if (request.contains("name")) {
        throw JsonError("name: the board keeps its name while the unit runs");
    }
    DaqSettings daq = unit.Vexa().Daq();
    ReadSettings(CheckedJson(request, ""), daq);
    unit.Vexa().ChangeDaq(daq);
}

void SetFault(Unit& unit, const Json& request, Json& answer) {
    Fault fault;
    ReadSettings(CheckedJson(request, ""), fault);
    answer["id"] = unit.Faults().Set(fault);
}

void ClearFaults(Unit& unit, const Json& request, Json& answer) {
    const CheckedJson node(request, "");
    node.RequireKeys({"id", "call"});
    std::size_t cleared = 0;
    if (node.Has("id")) {
        const std::uint32_t id = node.Member("id").Unsigned(1, UINT32_MAX);
        cleared = unit.Faults().Clear(id);
        if (cleared == 0) throw JsonError("id: there is no fault " + std::to_string(id));
    } else {
        cleared = node.Has("call") ? unit.Faults().Clear(ReadCall(node, "call"))
                                   : unit.Faults().ClearAll();
    }
    answer["cleared"] = cleared;
}

void ListFaults(Unit& unit, const Json& request, Json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["faults"] = FaultsToJson(unit.Faults().Faults());
}

void ListCalls(Unit& unit, const Json& request, Json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["calls"] = CallsToJson(unit.Faults().Uses());
}

void ReportState(Unit& unit, const Json& request, Json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["cable"] = ToJson(unit.StateOfCable());
    answer["daq"] = SettingsToJson(unit.Vexa().Daq());
    answer["devices"] = Json::array();
    for (const auto& device : unit.Vexa().Devices()) {
        answer["devices"].push_back(SettingsToJson(device));
    }
    answer["streams"] = Json::array();
    for (const auto& stream : unit.Vexa().Streams()) answer["streams"].push_back(ToJson(stream));
    for (const auto& [name, application] : unit.Cri().Applications()) {
        answer["applications"][name] = SettingsToJson(application);
    }
    answer["faults"] = FaultsToJson(unit.Faults().Faults());
    answer["calls"] = CallsToJson(unit.Faults().Uses());
}

struct RequestKind {
    std::string_view verb;
    Handler handle;
};

constexpr std::array<RequestKind, 10> kRequests = {{{"attach", Attach},
                                                    {"detach", Detach},
                                                    {"cable", ChangeCable},
                                                    {"app", ChangeApplication},
                                                    {"daq", ChangeBoard},
                                                    {"fault.set", SetFault},
                                                    {"fault.clear", ClearFaults},
                                                    {"fault.list", ListFaults},
                                                    {"calls", ListCalls},
                                                    {"state", ReportState}}};

// Removes the verb from the request and returns its handler.
Handler RemoveVerb(Json& request) {
    const CheckedJson node(request, "");
    if (!request.is_object()) node.Complain("an object");
    std::vector<std::string_view> verbs;
    for (const auto& kind : kRequests) verbs.push_back(kind.verb);
    const Handler handle = kRequests[node.Member("request").Choice(verbs)].handle;
    request.erase("request");
    return handle;
}

}  // namespace

std::string AnswerControlLine(Unit& unit, const std::string& line) {
    Json answer;
    try {
        Json request = ParseJson(line);
        const Handler handle = RemoveVerb(request);
        answer["ok"] = true;
        handle(unit, request, answer);
    } catch (const std::exception& error) {
        answer = {{"ok", false}, {"error", error.what()}};
    }
    return ToLine(answer);
}

}  // namespace vexa::unit
