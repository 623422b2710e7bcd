// Events of the unit, for clients that have subscribed on its control socket.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/CheckedJson.h"
#include "model/Faults.h"
#include "model/Runtime.h"

namespace vexa::unit {

class Unit;

// These send an event, a line of JSON as docs/virtual-unit.md describes it, to every subscriber.
// They cost next to nothing when there is none. Any thread.

// A library call has returned. `line`: as in the call log.
void ReportCall(Unit& unit, Call call, std::string_view target, std::int64_t result,
                const FaultEffect& effect, const std::string& line);
// An application has answered the service.
VEXA_UNIT_EXPORT void ReportAnswer(Unit& unit, const std::string& application,
                                   std::uint32_t command, std::int32_t response);
void ReportCable(Unit& unit, bool in);
// `request` has changed the unit.
void ReportChange(Unit& unit, const Json& request);

}  // namespace vexa::unit
