#include "model/ControlRequests.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string_view>

#include "foundation/Mutex.h"
#include "model/Events.h"
#include "model/Requests.h"
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
    json["in"] = cable.mayPlugIn;  // it may be flapping
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

// Held while a request is read and carried out: one may come from the timeline at the same time.
Mutex changing;

// Makes a change.
class Changer {
  public:
    Changer(Unit& unit_, Json& answer_) : unit(unit_), answer(answer_) {}

    void operator()(const DeviceSettings& device) const { unit.Vexa().ChangeDevice(device); }
    void operator()(const DaqSettings& daq) const { unit.Vexa().ChangeDaq(daq); }
    void operator()(const CableSettings& cable) const { unit.ChangeCable(cable); }
    void operator()(const std::pair<std::string, ApplicationSettings>& application) const {
        unit.Cri().ChangeApplication(application.first, application.second);
    }
    void operator()(const Fault& fault) const { answer["id"] = unit.Faults().Set(fault); }

  private:
    Unit& unit;
    Json& answer;
};

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

// The device that a host gets when it opens `device` by its name: the service opens the first
// attached one of the type. Empty: it gets none.
std::string DeviceThatOpens(Unit& unit, const std::vector<DeviceSettings>& devices,
                            const DeviceSettings& device) {
    if (!IsHidType(device.type) && !IsStreamType(device.type)) return "";
    const auto first = std::ranges::find_if(devices, [&](const DeviceSettings& other) {
        return other.type == device.type && unit.Vexa().IsFound(other.name);
    });
    return first == devices.end() ? "" : first->name;
}

void ReportState(Unit& unit, const Json& request, Json& answer) {
    CheckedJson(request, "").RequireKeys({});
    answer["seed"] = unit.Seed();
    answer["cable"] = ToJson(unit.StateOfCable());
    const DaqSettings daq = unit.Vexa().Daq();
    answer["daq"] = SettingsToJson(daq);
    if (daq.source) answer["daq"]["found"] = unit.Vexa().IsFound(daq.name);
    answer["devices"] = Json::array();
    const auto devices = unit.Vexa().Devices();
    for (const auto& device : devices) {
        Json item = SettingsToJson(device);
        if (device.source) item["found"] = unit.Vexa().IsFound(device.name);
        const auto opened = DeviceThatOpens(unit, devices, device);
        item["opens"] = opened.empty() ? Json(nullptr) : Json(opened);
        answer["devices"].push_back(std::move(item));
    }
    answer["streams"] = Json::array();
    for (const auto& stream : unit.Vexa().Streams()) answer["streams"].push_back(ToJson(stream));
    for (const auto& [name, application] : unit.Cri().Applications()) {
        answer["applications"][name] = SettingsToJson(application);
    }
    answer["faults"] = FaultsToJson(unit.Faults().Faults());
    answer["calls"] = CallsToJson(unit.Faults().Uses());
}

// The conditions in `wait` that do not hold, by their keys; empty when all hold.
std::string Unmet(const WaitSettings& wait, Unit& unit) {
    const auto streams = unit.Vexa().Streams();
    const auto isOpen = [&](const std::string& device, std::uint64_t blocks) {
        return std::ranges::any_of(streams, [&](const StreamState& stream) {
            return stream.deviceName == device && stream.counts.taken >= blocks;
        });
    };
    const auto cable = unit.StateOfCable();
    const auto calls = wait.call ? unit.Faults().Uses()[static_cast<std::size_t>(*wait.call)] : 0;
    std::string keys;
    const auto require = [&](const char* key, bool holds) {
        if (!holds) keys.append(keys.empty() ? "" : ", ").append(key);
    };
    require("open", wait.open.empty() || isOpen(wait.open, 0));
    require("streaming", wait.streaming.empty() || isOpen(wait.streaming, 1));
    require("closed", wait.closed.empty() || !isOpen(wait.closed, 0));
    require("call", !wait.call || calls >= wait.count.value_or(1));
    require("host", wait.host.value_or(cable.hostConnected) == cable.hostConnected);
    require("cable", wait.cable.value_or(cable.mayPlugIn) == cable.mayPlugIn);
    // The first that the board sends is its answer to the sync.
    const bool linked = isOpen(unit.Vexa().Daq().name, 1);
    require("daq", wait.daq.value_or(linked) == linked);
    require("bytesToHost", cable.counts.bytesToHost >= wait.bytesToHost.value_or(0));
    require("bytesFromHost", cable.counts.bytesFromHost >= wait.bytesFromHost.value_or(0));
    return keys;
}

ControlAnswer Wait(Unit& unit, const Json& request) {
    const CheckedJson json(request, "");
    WaitSettings wait;
    ReadSettings(json, wait);
    WaitSettings nothing;
    nothing.forMs = wait.forMs;
    nothing.later = wait.later;
    if (wait == nothing) json.Complain("a condition to wait for");
    for (const auto& [key, name] :
         {std::pair("open", wait.open), {"streaming", wait.streaming}, {"closed", wait.closed}}) {
        if (!name.empty() && !wait.later) RequireDevice(json, key, name, unit.Settings());
    }
    const TimePoint end = Clock::now() + std::chrono::milliseconds(wait.forMs);
    return {.later = [&unit, wait, end]() -> std::optional<std::string> {
        const auto keys = Unmet(wait, unit);
        if (keys.empty()) return ToLine({{"ok", true}});
        if (Clock::now() < end) return std::nullopt;
        return ToLine({{"ok", false}, {"timeout", true}, {"error", "timeout; not yet: " + keys}});
    }};
}

struct RequestKind {
    std::string_view verb;
    Handler handle;  // null: carried out elsewhere
};

constexpr std::array<RequestKind, 12> kRequests = {{{"attach", nullptr},
                                                    {"detach", nullptr},
                                                    {"cable", nullptr},
                                                    {"app", nullptr},
                                                    {"daq", nullptr},
                                                    {"fault.set", nullptr},
                                                    {"fault.clear", ClearFaults},
                                                    {"fault.list", ListFaults},
                                                    {"calls", ListCalls},
                                                    {"state", ReportState},
                                                    {"wait", nullptr},
                                                    {"events", nullptr}}};

const RequestKind& KindOf(const Json& request) {
    const CheckedJson node(request, "");
    if (!request.is_object()) node.Complain("an object");
    std::vector<std::string_view> verbs;
    for (const auto& kind : kRequests) verbs.push_back(kind.verb);
    return kRequests[node.Member("request").Choice(verbs)];
}

ControlAnswer CarryOut(Unit& unit, const Json& whole) {
    const RequestKind& kind = KindOf(whole);
    Json request = whole;
    request.erase("request");
    if (kind.verb == "wait") return Wait(unit, request);
    Json answer = {{"ok", true}};
    if (kind.verb == "events") {
        CheckedJson(request, "").RequireKeys({});
        return {.line = ToLine(answer), .subscribes = true};
    }
    const MutexLock lock(changing);
    if (kind.handle != nullptr) {
        kind.handle(unit, request, answer);
        if (kind.handle == ClearFaults) ReportChange(unit, whole);
    } else if (const auto change =
                   ReadChange(kind.verb, CheckedJson(request, ""), unit.Settings())) {
        std::visit(Changer(unit, answer), *change);
        ReportChange(unit, whole);
    }
    return {.line = ToLine(answer)};
}

}  // namespace

ControlAnswer AnswerControlLine(Unit& unit, const std::string& line) {
    try {
        return CarryOut(unit, ParseJson(line));
    } catch (const std::exception& error) {
        return {.line = ToLine({{"ok", false}, {"error", error.what()}})};
    }
}

}  // namespace vexa::unit
