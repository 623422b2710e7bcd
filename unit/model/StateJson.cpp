#include "model/StateJson.h"

#include "model/FaultJson.h"
#include "model/SettingsReader.h"
#include "model/Unit.h"

namespace vexa::unit {

namespace {

using nlohmann::ordered_json;

ordered_json ToJson(const DeviceSettings& device) {
    return {{"name", device.name},         {"type", device.type},
            {"attached", device.attached}, {"blockSize", device.blockSize},
            {"rate", device.rate},         {"waveform", WaveformName(device.waveform)},
            {"echo", device.echo}};
}

ordered_json ToJson(const DaqSettings& daq) {
    return {{"name", daq.name},
            {"present", daq.present},
            {"answersSync", daq.answersSync},
            {"syncDelayMs", daq.syncDelayMs},
            {"measurementRate", daq.measurementRate},
            {"measurementSize", daq.measurementSize},
            {"checksumErrorEvery", daq.checksumErrorEvery},
            {"acknowledges", daq.acknowledges}};
}

ordered_json ToJson(const StreamState& stream) {
    return {{"stream", stream.handle},       {"device", stream.deviceName},
            {"attached", !stream.unplugged}, {"blocks", stream.counts.blocks},
            {"taken", stream.counts.taken},  {"refused", stream.counts.refused},
            {"writes", stream.counts.writes}};
}

ordered_json ToJson(const Stray& stray) {
    ordered_json json = {{"when", StrayTimeName(stray.when)}};
    if (stray.when == StrayTime::kInterval) json["intervalMs"] = stray.intervalMs;
    json["command"] = stray.command;
    json["response"] = stray.response;
    return json;
}

ordered_json ToJson(const ApplicationSettings& application) {
    auto responses = ordered_json::object();
    for (const auto& [command, response] : application.responses) {
        responses[std::to_string(command)] = response;
    }
    auto strays = ordered_json::array();
    for (const auto& stray : application.strays) strays.push_back(ToJson(stray));
    return {{"holds", application.holds},
            {"delayMs", application.delayMs},
            {"silent", application.silent},
            {"refuses", application.refuses},
            {"responses", responses},
            {"initFails", application.initFails},
            {"strays", strays}};
}

ordered_json ToJson(const CableState& cable) {
    ordered_json json = {{"in", cable.settings.in}};
    if (const auto& flapping = cable.settings.flapping) {
        json["flap"] = {
            {"inMs", flapping->inMs}, {"outMs", flapping->outMs}, {"times", flapping->times}};
    }
    json["hostConnected"] = cable.hostConnected;
    json["hosts"] = cable.counts.hosts;
    json["bytesFromHost"] = cable.counts.bytesFromHost;
    json["bytesToHost"] = cable.counts.bytesToHost;
    return json;
}

template <typename List>
ordered_json ListToJson(const List& list) {
    auto json = ordered_json::array();
    for (const auto& item : list) json.push_back(ToJson(item));
    return json;
}

}  // namespace

ordered_json FaultsToJson(const std::vector<FaultRecord>& faults) {
    auto json = ordered_json::array();
    for (const auto& record : faults) {
        ordered_json item = {{"id", record.id}};
        item.update(FaultToJson(record.fault));
        item["hits"] = record.hits;
        json.push_back(std::move(item));
    }
    return json;
}

ordered_json CallsToJson(const CallCounts& counts) {
    ordered_json json;
    for (std::size_t index = 0; index < kCallCount; ++index) {
        json[std::string(kCalls[index].name)] = counts[index];
    }
    return json;
}

ordered_json StateToJson(Unit& unit) {
    ordered_json applications;
    for (const auto& [name, application] : unit.Cri().Applications()) {
        applications[name] = ToJson(application);
    }
    return {{"cable", ToJson(unit.StateOfCable())},
            {"daq", ToJson(unit.Vexa().Daq())},
            {"devices", ListToJson(unit.Vexa().Devices())},
            {"streams", ListToJson(unit.Vexa().Streams())},
            {"applications", applications},
            {"faults", FaultsToJson(unit.Faults().Faults())},
            {"calls", CallsToJson(unit.Faults().Uses())}};
}

}  // namespace vexa::unit
