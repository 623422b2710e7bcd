// Applications on the unit die in the middle of a session and are restarted.
#include "soak/Trial.h"

namespace vexa::soak {

namespace {

constexpr int kMoments = 3;

// A way in which an application is dead for the service.
struct Death {
    const char* name;
    Json settings;             // of the application while it is dead
    bool spoilsSession;        // permanently: the service keeps its session
    bool answersAtTheRestart;  // it answers the old commands when it restarts
};

std::vector<Death> Deaths() {
    const Json noAnswer = {{"1", -1}, {"2", -1}, {"3", -1}, {"4", -1}};
    return {{"no-answer", {{"delayMs", 1000}, {"responses", noAnswer}}, false, false},
            {"silent", {{"silent", true}}, false, true},
            {"not-there", {{"refuses", {1, 2, 3, 4}}}, true, false}};
}

Json Alive(bool answersOldCommands) {
    Json settings = {{"delayMs", 2},
                     {"responses", Json::object()},
                     {"silent", false},
                     {"refuses", Json::array()},
                     {"strays", Json::array()}};
    if (!answersOldCommands) return settings;
    for (const int command : {1, 2, 3, 4}) {
        settings["strays"].push_back(
            {{"when", "interval"}, {"intervalMs", 20}, {"command", command}, {"response", 1}});
    }
    return settings;
}

void Change(SoakUnit& unit, const std::string& application, const Json& settings) {
    Json request = {{"request", "app"}, {"name", application}};
    request.update(settings);
    unit.Ask(request);
}

// Runs a session in which the application dies before one step and restarts before a later one, or
// after the session.
bool KillInSession(SoakUnit& unit, const std::string& application, const Death& death,
                   Random& random) {
    const int dies = static_cast<int>(random.Between(0, kExerciseSteps - 1));
    const int returns = dies + static_cast<int>(random.Between(1, kExerciseSteps));
    bool isReached = false;
    const auto beforeStep = [&](int step) {
        if (step == dies) {
            Change(unit, application, death.settings);
            isReached = true;
        }
        if (step == returns) Change(unit, application, Alive(death.answersAtTheRestart));
    };
    auto client = vexahost::Client::Connect(unit.Cable(), {}, kConnectPatience);
    if (client) Exercise(**client, {.beforeStep = beforeStep});
    Change(unit, application, Alive(death.answersAtTheRestart));
    return isReached;
}

}  // namespace

void AddApplicationTrials(std::vector<Trial>& trials) {
    for (const std::string application : {"DAQ", "SPLASH", "FGEN"}) {
        for (const auto& death : Deaths()) {
            for (int moment = 1; moment <= kMoments; ++moment) {
                UnitTrial onUnit;
                onUnit.run = [application, death](SoakUnit& unit, Random& random) {
                    return KillInSession(unit, application, death, random);
                };
                if (death.spoilsSession) onUnit.afterwards = Afterwards::kQueryMayFail;
                trials.push_back(
                    {.group = "application killed",
                     .name = "app/" + application + "/" + death.name + "/" + std::to_string(moment),
                     .isShort = moment == 1,
                     .onUnit = std::move(onUnit)});
            }
        }
    }
}

}  // namespace vexa::soak
