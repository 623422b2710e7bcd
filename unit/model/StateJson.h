// What a running unit tells about itself, as JSON.
#pragma once

#include <nlohmann/json.hpp>

#include "model/FaultTable.h"

namespace vexa::unit {

class Unit;

// Each fault with its number and its hits.
[[nodiscard]] nlohmann::ordered_json FaultsToJson(const std::vector<FaultRecord>& faults);

// Every call's name and how often it was used.
[[nodiscard]] nlohmann::ordered_json CallsToJson(const CallCounts& counts);

// Everything: cable, DAQ, devices, streams, applications, faults, calls.
[[nodiscard]] nlohmann::ordered_json StateToJson(Unit& unit);

}  // namespace vexa::unit
