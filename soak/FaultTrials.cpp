// Every call fails, blocks and has its other faults during a session.
#include "model/Faults.h"
#include "soak/Trial.h"

namespace vexa::soak {

using testkit::WaitUntil;

namespace {

using vexa::unit::Call;
using vexa::unit::CallInfo;
using vexa::unit::FaultAction;

constexpr Milliseconds kReachPatience{1500};  // for calls after the host has gone
constexpr int kRounds = 3;

constexpr const char* kErrors[] = {"EIO", "EINTR", "EAGAIN", "ENODEV", "ESHUTDOWN", "EBADF"};

struct Action {
    const char* name;
    FaultAction action;
    Json details;
};

// Which uses of a call are hit; for kLater a random one.
enum class Uses { kFirst, kSecond, kLater, kAll };

struct Placement {
    const char* name;
    Uses uses;
};

constexpr Placement kPlacements[] = {{"first", Uses::kFirst},
                                     {"second", Uses::kSecond},
                                     {"later", Uses::kLater},
                                     {"all", Uses::kAll}};

std::vector<Action> Actions() {
    return {{"fail", FaultAction::kFail, {}},
            {"block", FaultAction::kBlock, {{"ms", kStallMs}}},
            {"late", FaultAction::kLate, {{"ms", kStallMs}}},
            {"short", FaultAction::kShort, {{"bytes", 3}}},
            {"oversize", FaultAction::kOversize, {{"bytes", 400}}},
            {"corrupt", FaultAction::kCorrupt, {}},
            {"data", FaultAction::kData, {}}};
}

// False for calls at the start or the end only, which have trials of their own.
bool IsOfSessions(Call call) {
    switch (call) {
        case Call::kInit:
        case Call::kUninit:
        case Call::kGetDllVersion:
        case Call::kSetDebugTraceThreshold:
        case Call::kCriInit:
        case Call::kCriTerminate:
        case Call::kNodeOpen:
            return false;
        default:
            return true;
    }
}

// Runs sessions until the fault has hit; then the cable is out.
bool RunUntilHit(SoakUnit& unit, Json fault, Uses uses, Random& random) {
    fault["request"] = "fault.set";
    if (fault["action"] == "fail" && fault["call"].get<std::string>().starts_with("node.")) {
        fault["errno"] = kErrors[random.Between(0, std::size(kErrors) - 1)];
    }
    if (uses == Uses::kSecond) fault["skip"] = 1;
    if (uses == Uses::kLater) fault["skip"] = random.Between(2, 5);
    if (uses != Uses::kAll) fault["count"] = 1;
    const Json id = unit.Ask(fault).at("id");
    for (int round = 0; round < kRounds && HitsOf(unit, id) == 0; ++round) {
        auto client = vexahost::Client::Connect(unit.Cable(), {}, kConnectPatience);
        if (client) Exercise(**client, {});
    }
    return WaitUntil(kReachPatience, [&] { return HitsOf(unit, id) > 0; });
}

Trial MakeTrial(const CallInfo& call, const Action& action, const Placement& place) {
    Json fault = {{"call", call.name}, {"action", action.name}};
    if (action.details.is_object()) fault.update(action.details);
    const bool fails = action.action == FaultAction::kFail;
    UnitTrial onUnit;
    onUnit.run = [fault, uses = place.uses](SoakUnit& unit, Random& random) {
        return RunUntilHit(unit, fault, uses, random);
    };
    // The service opens no second session with an application that refused a command.
    if (fails && call.name == "criCommand") onUnit.afterwards = Afterwards::kQueryMayFail;
    onUnit.streamsMayStay = fails && call.name == "VEXA_Device_Stream_Close";
    const bool isStall = action.action == FaultAction::kBlock;
    const bool isShort = place.uses == Uses::kFirst && (fails || isStall);
    const std::string group = fails     ? "a call fails"
                              : isStall ? "a call blocks 1 s"
                                        : "other faults";
    return {.group = group,
            .name = "fault/" + std::string(call.name) + "/" + action.name + "/" + place.name,
            .isShort = isShort,
            .onUnit = onUnit};
}

}  // namespace

void AddFaultTrials(std::vector<Trial>& trials) {
    for (const auto& action : Actions()) {
        for (std::size_t index = 0; index < vexa::unit::kCallCount; ++index) {
            const CallInfo& call = vexa::unit::kCalls[index];
            if (!IsOfSessions(static_cast<Call>(index))) continue;
            if ((call.actions & vexa::unit::Bits(action.action)) == 0) continue;
            for (const auto& place : kPlacements) {
                // A unit that stalls at every call cannot complete a session in 2 s.
                const bool stalls =
                    (vexa::unit::Bits(action.action) & vexa::unit::kTimedActions) != 0;
                if (stalls && place.uses == Uses::kAll) continue;
                trials.push_back(MakeTrial(call, action, place));
            }
        }
    }
}

}  // namespace vexa::soak
