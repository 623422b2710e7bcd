#include "soak/Trial.h"

#include <algorithm>
#include <stdexcept>

namespace vexa::soak {

using testkit::WaitUntil;

namespace {

constexpr int kWarmUps = 2;
constexpr Milliseconds kWarmUpLimit{20000};

bool IsHostThere(SoakUnit& unit) {
    return unit.Ask({{"request", "state"}}).at("cable").at("hostConnected").get<bool>();
}

std::size_t StreamsOf(SoakUnit& unit) {
    return unit.Ask({{"request", "state"}}).at("streams").size();
}

// Waits until no stream is open and no host is connected.
bool AwaitNoSession(SoakUnit& unit, Milliseconds limit) {
    return WaitUntil(limit, [&] { return StreamsOf(unit) == 0 && !IsHostThere(unit); });
}

std::uint64_t LinkQueriesOf(SoakUnit& unit) {
    const Json calls = unit.Ask({{"request", "calls"}});
    return calls.at("calls").at("node.ioctl").get<std::uint64_t>();
}

// Waits until the service has queried the cable while it was out.
bool AwaitUnplugSeen(SoakUnit& unit, Milliseconds limit) {
    if (!WaitUntil(limit, [&] { return !IsHostThere(unit); })) return false;
    const std::uint64_t before = LinkQueriesOf(unit);
    return WaitUntil(limit, [&] { return LinkQueriesOf(unit) != before; });
}

std::string NotGivenBack(const SoakUnit& unit, const ProcessFigures& wanted) {
    return "not all was given back: " + ToText(unit.Figures()) + ", before " + ToText(wanted);
}

// What may be in use without a session. A stream that the library did not close stays in use for
// ever, with the library's thread for it.
ProcessFigures WantedWhenIdle(WarmUnit& warm, const UnitTrial& trial) {
    ProcessFigures wanted = warm.idle;
    if (trial.streamsMayStay) wanted.threads += StreamsOf(warm.unit);
    return wanted;
}

// Waits until everything that a session used is released.
bool AwaitIdle(WarmUnit& warm, const UnitTrial& trial, Milliseconds limit) {
    return WaitUntil(limit, [&] {
        const ProcessFigures wanted = WantedWhenIdle(warm, trial);
        const ProcessFigures now = warm.unit.Figures();
        return now.threads == wanted.threads && now.descriptors == wanted.descriptors;
    });
}

Outcome TryToCheck(WarmUnit& warm, const UnitTrial& trial, const Settings& settings) {
    SoakUnit& unit = warm.unit;
    Outcome outcome;
    const auto lost = [&](const std::string& why) {
        outcome.lost = why;
        return outcome;
    };
    if (!unit.IsAlive()) return lost("the service has died");
    unit.Ask({{"request", "fault.clear"}});
    const auto isIdle = [&] { return AwaitIdle(warm, trial, settings.idleLimit); };
    if (!trial.returnsAtOnce) {
        if (!AwaitUnplugSeen(unit, settings.idleLimit)) return lost("does not look at the cable");
        if (!isIdle()) return lost(NotGivenBack(unit, warm.idle));
    }

    const auto session = HoldFreshSession(unit.Cable(), settings.sessionLimit,
                                          trial.afterwards == Afterwards::kQueryMayFail);
    outcome.took = session.took;
    outcome.reconnects = session.reconnects;
    if (!unit.IsAlive()) return lost("the service has died in the session afterwards");
    if (!session.failure.empty()) return lost("no new session: " + session.failure);
    if (!isIdle()) return lost("after the new session " + NotGivenBack(unit, warm.idle));

    const std::size_t memory = unit.Figures().memoryKiB;
    outcome.growthKiB = memory - std::min(memory, warm.idle.memoryKiB);
    if (settings.watchMemory && outcome.growthKiB > settings.memoryAllowanceKiB) {
        return lost("memory has grown by " + std::to_string(outcome.growthKiB) + " KiB to " +
                    std::to_string(memory) + " KiB");
    }
    return outcome;
}

}  // namespace

WarmUnit::WarmUnit(const Settings& settings)
    : unit(settings.unitProgram, Json::parse(TrialScenario())) {
    if (!unit.AwaitStart(settings.startLimit)) throw std::runtime_error("a unit does not start");
    for (int round = 0; round < kWarmUps; ++round) {
        {
            const auto client = vexahost::Client::Connect(unit.Cable(), {}, kWarmUpLimit);
            if (!client) throw std::runtime_error("no first session: " + client.error().message);
            if (!Exercise(**client, {.patience = kWarmUpLimit})) {
                throw std::runtime_error("a first session does not end");
            }
        }
        const auto session = HoldFreshSession(unit.Cable(), kWarmUpLimit, false);
        if (!session.failure.empty()) {
            throw std::runtime_error("no first session: " + session.failure);
        }
    }
    if (!AwaitNoSession(unit, settings.idleLimit)) {
        throw std::runtime_error("a first session is not given back");
    }
    idle = unit.Figures();
}

Outcome CheckRecovered(WarmUnit& warm, const UnitTrial& trial, const Settings& settings) {
    Outcome outcome;
    try {
        outcome = TryToCheck(warm, trial, settings);
    } catch (const std::exception& error) {  // the control socket does not answer, or refuses
        outcome.lost = error.what();
    }
    if (!outcome.lost.empty()) outcome.lines = warm.unit.LastLines();
    return outcome;
}

std::uint64_t HitsOf(SoakUnit& unit, const Json& id) {
    const Json list = unit.Ask({{"request", "fault.list"}});
    for (const auto& fault : list.at("faults")) {
        if (fault.at("id") == id) return fault.at("hits").get<std::uint64_t>();
    }
    return 0;
}

std::vector<Trial> AllTrials() {
    std::vector<Trial> trials;
    AddFaultTrials(trials);
    AddCableTrials(trials);
    AddApplicationTrials(trials);
    AddStartTrials(trials);
    AddEndTrials(trials);
    return trials;
}

}  // namespace vexa::soak
