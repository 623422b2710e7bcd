// The service is told to end at any moment, also while the calls of its shut-down fail or block.
#include <thread>

#include "protocol/InitialSync.h"
#include "soak/Trial.h"
#include "vexahost/Requests.h"

namespace vexa::soak {

using testkit::WaitUntil;

namespace {

constexpr int kEnds = 24;
constexpr int kShortEnds = 8;
constexpr std::uint32_t kLatestEndMs = 2500;  // the session takes about as long
constexpr Milliseconds kPatience{20000};

// Calls of the shut-down, and which one of them is hit.
constexpr std::pair<const char*, int> kEndCalls[] = {
    {"VEXA_Device_Stream_Close", 1},
    {"VEXA_Device_Stream_Close", 2},
    {"VEXA_Device_GetOpenDeviceName", 1},
    {"VEXA_Device_Open", 1},
    {"VEXA_Device_Close", 1},
    {"criTerminate", 1},
    {"criTerminate", 2},
    {"criTerminate", 3},
    {"VEXA_Uninit", 1},
    {"node.read", 1},
    {"node.write", 1},
    {"node.ioctl", 1},
};

// Runs a session; it may fail.
void HoldSession(SoakUnit& unit) {
    const auto client = vexahost::Client::Connect(unit.Cable(), {}, kPatience);
    if (client) Exercise(**client, {});
}

Outcome AfterEnd(SoakUnit& unit, const Settings& settings) {
    Outcome outcome;
    outcome.lost = unit.AwaitEnd(settings.endLimit);
    if (!outcome.lost.empty()) outcome.lines = unit.LastLines();
    return outcome;
}

Outcome EndAtRandom(const Settings& settings, Random& random) {
    SoakUnit unit(settings.unitProgram, Json::parse(TrialScenario()));
    if (!unit.AwaitStart(settings.startLimit)) return {.lost = "does not start"};
    const bool withHost = random.Between(1, 5) > 1;
    std::thread host([&] {
        if (withHost) HoldSession(unit);
    });
    std::this_thread::sleep_for(Milliseconds{random.Between(0, kLatestEndMs)});
    unit.Terminate();
    Outcome outcome = AfterEnd(unit, settings);
    host.join();
    return outcome;
}

// Sends until the fault has hit.
bool AwaitHit(SoakUnit& unit, vexahost::Client& client, const Json& id) {
    return WaitUntil(kPatience, [&] {
        (void)client.SendRaw(vexahost::BuildInitialSync(client.NextSequence()).Bytes());
        return HitsOf(unit, id) > 0;
    });
}

// Ends the service with the DAQ link and two devices open. Calls on the node, which are made all
// the time, already fail before the end, and for ever.
Outcome EndWith(Json fault, const Settings& settings) {
    SoakUnit unit(settings.unitProgram, Json::parse(TrialScenario()));
    if (!unit.AwaitStart(settings.startLimit)) return {.lost = "does not start"};
    const auto client = vexahost::Client::Connect(unit.Cable(), {}, kPatience);
    if (!client || !Exercise(**client, {.patience = kPatience}))
        return {.lost = "no session before the end"};
    const bool isOfTheNode = fault["call"].get<std::string>().starts_with("node.");
    if (isOfTheNode) fault.erase("count");
    fault["request"] = "fault.set";
    const Json id = unit.Ask(fault).at("id");
    const bool isHit = isOfTheNode && AwaitHit(unit, **client, id);
    unit.Terminate();
    Outcome outcome = AfterEnd(unit, settings);
    outcome.reached = isHit || unit.CallLogHas("fault ");
    return outcome;
}

}  // namespace

void AddEndTrials(std::vector<Trial>& trials) {
    for (int number = 1; number <= kEnds; ++number) {
        trials.push_back({.group = "told to end",
                          .name = "end/" + std::to_string(number),
                          .isShort = number <= kShortEnds,
                          .alone = EndAtRandom});
    }
    for (const bool fails : {true, false}) {
        for (const auto& [call, use] : kEndCalls) {
            Json fault = {{"call", call}, {"count", 1}, {"skip", use - 1}};
            fault["action"] = fails ? "fail" : "block";
            if (!fails) fault["ms"] = kStallMs;
            trials.push_back(
                {.group = fails ? "call of the end fails" : "call of the end blocks 1 s",
                 .name = std::string("end/") + call + "/" + (fails ? "fail" : "block") + "/" +
                         std::to_string(use),
                 .isShort = !fails || use == 1,
                 .alone = [fault](const Settings& settings, Random&) {
                     return EndWith(fault, settings);
                 }});
        }
    }
}

}  // namespace vexa::soak
