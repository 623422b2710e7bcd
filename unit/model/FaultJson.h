// A fault as JSON, the same in a scenario and in a control request.
#pragma once

#include <nlohmann/json.hpp>

#include "model/CheckedJson.h"
#include "model/Fault.h"

namespace vexa::unit {

// Throws JsonComplaint when a key is unknown, missing, or of no use with the call and the action.
[[nodiscard]] Fault ReadFault(const CheckedJson& node);

// With no keys but those that ReadFault would need to make it again.
[[nodiscard]] nlohmann::ordered_json FaultToJson(const Fault& fault);

// The call of the name that `node` holds under `key`.
[[nodiscard]] Call ReadCall(const CheckedJson& node, std::string_view key);

}  // namespace vexa::unit
