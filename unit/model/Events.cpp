#include "model/Events.h"

#include <nlohmann/json.hpp>

#include "model/Unit.h"

namespace vexa::unit {

void ReportCall(Unit& unit, Call call, std::string_view target, std::int64_t result,
                const FaultEffect& effect, const std::string& line) {
    if (!unit.HasListeners()) return;
    Json event = {{"event", "call"}, {"call", InfoOf(call).name}};
    if (!target.empty()) event["for"] = target;
    event["result"] = result;
    if (!effect.IsNone()) event["faults"] = effect.faults;
    event["line"] = line;
    unit.Publish(event);
}

void ReportAnswer(Unit& unit, const std::string& application, std::uint32_t command,
                  std::int32_t response) {
    if (!unit.HasListeners()) return;
    unit.Publish({{"event", "answer"},
                  {"application", application},
                  {"command", command},
                  {"response", response}});
}

void ReportCable(Unit& unit, bool in) {
    if (unit.HasListeners()) unit.Publish({{"event", "cable"}, {"in", in}});
}

void ReportChange(Unit& unit, const Json& request) {
    if (unit.HasListeners()) unit.Publish({{"event", "change"}, {"request", request}});
}

}  // namespace vexa::unit
