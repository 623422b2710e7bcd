// What control requests and the steps of a timeline ask for.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "model/CheckedJson.h"
#include "model/Scenario.h"

namespace vexa::unit {

// The settings of a unit that requests refer to.
struct UnitSettings {
    std::vector<DeviceSettings> devices;
    DaqSettings daq;
    ApplicationMap applications;
};

// What a request changes: the new settings of one thing.
using Change = std::variant<DeviceSettings, DaqSettings, CableSettings,
                            std::pair<std::string, ApplicationSettings>, Fault>;

// The change that the request `verb` with the members `request` makes to a unit as it is `now`;
// nothing when the verb is that of no change. Throws JsonError when something is wrong.
[[nodiscard]] std::optional<Change> ReadChange(std::string_view verb, const CheckedJson& request,
                                               const UnitSettings& now);

// Checks that the target of a fault, read from `json`, exists or may be attached later. Throws
// JsonError with the names that there are.
void CheckTarget(const CheckedJson& json, const Fault& fault, const UnitSettings& now);

// Checks that the device `name`, the member `key` of `json`, exists. Throws JsonError.
void RequireDevice(const CheckedJson& json, std::string_view key, const std::string& name,
                   const UnitSettings& now);

// Checks the requests of a scenario's timeline, each after those before it. Throws JsonError.
void CheckTimeline(const Scenario& scenario);

// The conditions of a request to wait; all that are given must hold at the same time.
struct WaitSettings {
    std::string open;       // device with an open stream
    std::string streaming;  // device of which a block was accepted
    std::string closed;     // device without an open stream
    bool later = false;     // these devices may be attached later
    std::optional<Call> call;
    std::optional<std::uint32_t> count;  // how often the call has been made
    std::optional<bool> host;            // whether one is connected
    std::optional<bool> cable;           // whether hosts can plug in
    std::optional<bool> daq;             // whether the board has answered the sync
    std::optional<std::uint32_t> bytesToHost = {};
    std::optional<std::uint32_t> bytesFromHost = {};
    std::uint32_t forMs = 10000;

    bool operator==(const WaitSettings&) const = default;
};

}  // namespace vexa::unit
