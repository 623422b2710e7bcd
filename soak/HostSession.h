// What a host does with the unit while something goes wrong, and afterwards.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "vexahost/Client.h"

namespace vexa::soak {

using Milliseconds = std::chrono::milliseconds;

// What the unit of the trials consists of: devices that echo, and applications and a board that are
// quick.
[[nodiscard]] std::string TrialScenario();

struct ExerciseOptions {
    Milliseconds patience{2500};                         // for each answer
    std::function<void(int step)> beforeStep = nullptr;  // steps count from 0
};

inline constexpr int kExerciseSteps = 17;

// Goes through all that a host can do, so that every call of the unit is used several times; ends
// with the DAQ link and two devices open. Refusals are taken as they come; false at the first
// answer that stays out, or when the link is lost.
bool Exercise(vexahost::Client& client, const ExerciseOptions& options);

struct FreshSession {
    std::string failure;   // what did not work; empty when all did
    Milliseconds took{0};  // from the cable's return to the session's end
    int reconnects = 0;
};

// A whole session from the moment at which the cable goes in: sync, controller, query, a sensor,
// its echo, close. It must be done within `limit`; a link that is lost meanwhile is connected anew.
// `queryMayFail`: the unit may say that it has no good session with its DAQ application.
[[nodiscard]] FreshSession HoldFreshSession(const vexahost::TransportFactory& cable,
                                            Milliseconds limit, bool queryMayFail);

}  // namespace vexa::soak
