// Calls of the start-up fail or block: the service starts nevertheless, or ends in order.
#include "soak/Trial.h"

namespace vexa::soak {

using testkit::WaitUntil;

namespace {

struct StartCall {
    const char* call;
    int uses;       // during the start
    bool isNeeded;  // when it fails, the service must end
};

constexpr StartCall kStartCalls[] = {
    {"VEXA_Init", 1, true},
    {"VEXA_GetDLLVersion", 1, false},
    {"VEXA_Diags_SetDebugTraceThreshold", 1, false},
    {"criInit", 3, false},
    {"node.open", 1, true},
};

Outcome Lost(SoakUnit& unit, const std::string& why) {
    return {.lost = why, .lines = unit.LastLines()};
}

std::uint64_t UsesOf(SoakUnit& unit, const std::string& call) {
    return unit.Ask({{"request", "calls"}}).at("calls").at(call).get<std::uint64_t>();
}

// Waits until the service has opened the node and hosts can plug in.
bool AwaitNode(SoakUnit& unit, Milliseconds limit) {
    return WaitUntil(limit, [&] { return UsesOf(unit, "node.ioctl") > 0; });
}

Outcome EndInOrder(SoakUnit& unit, Milliseconds limit, const Outcome& outcome) {
    const std::string wrong = unit.AwaitEnd(limit);
    return wrong.empty() ? outcome : Lost(unit, wrong);
}

// Starts a unit on which the fault is set from the start.
Outcome StartWith(const Json& fault, bool endsByItself, bool queryMayFail,
                  const Settings& settings) {
    Json scenario = Json::parse(TrialScenario());
    scenario["faults"] = Json::array({fault});
    SoakUnit unit(settings.unitProgram, scenario);
    if (!unit.AwaitStart(settings.startLimit)) return Lost(unit, "does not start");
    if (endsByItself) return EndInOrder(unit, settings.endLimit, {});

    if (!AwaitNode(unit, settings.startLimit)) return Lost(unit, "does not open the node");
    Outcome outcome;
    const auto session = HoldFreshSession(unit.Cable(), settings.sessionLimit, queryMayFail);
    outcome.took = session.took;
    outcome.reconnects = session.reconnects;
    if (!session.failure.empty()) return Lost(unit, "no session: " + session.failure);
    outcome.reached = HitsOf(unit, 1) > 0;  // the only fault
    unit.Terminate();
    return EndInOrder(unit, settings.endLimit, outcome);
}

void Add(std::vector<Trial>& trials, const StartCall& call, int use, bool fails) {
    Json fault = {{"call", call.call}, {"count", 1}, {"skip", use - 1}};
    fault["action"] = fails ? "fail" : "block";
    if (!fails) fault["ms"] = kStallMs;
    const bool endsByItself = fails && call.isNeeded;
    const bool queryMayFail = fails && fault["call"] == "criInit" && use == 1;
    trials.push_back({.group = fails ? "start-up call fails" : "start-up call blocks 1 s",
                      .name = std::string("start/") + call.call + "/" + (fails ? "fail" : "block") +
                              "/" + std::to_string(use),
                      .isShort = true,
                      .alone = [=](const Settings& settings, Random&) {
                          return StartWith(fault, endsByItself, queryMayFail, settings);
                      }});
}

}  // namespace

void AddStartTrials(std::vector<Trial>& trials) {
    for (const bool fails : {true, false}) {
        for (const auto& call : kStartCalls) {
            for (int use = 1; use <= call.uses; ++use) Add(trials, call, use, fails);
        }
    }
}

}  // namespace vexa::soak
