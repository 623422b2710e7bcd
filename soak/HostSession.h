// The sessions that a host holds while something goes wrong, and afterwards.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "vexahost/Client.h"

namespace vexa::soak {

using Milliseconds = std::chrono::milliseconds;

// The scenario of the trials: devices that echo, and applications and a board that answer
// quickly.
[[nodiscard]] std::string TrialScenario();

struct ExerciseOptions {
    Milliseconds patience{2500};                         // timeout for each answer
    std::function<void(int step)> beforeStep = nullptr;  // steps count from 0
};

inline constexpr int kExerciseSteps = 17;

// Does everything that a host can do, so that the service makes every call several times; ends
// with the DAQ link and two devices open. Refusals are accepted; false at the first missing
// answer, or when the link is lost.
bool Exercise(vexahost::Client& client, const ExerciseOptions& options);

struct FreshSession {
    std::string failure;   // why it failed; empty: it did not
    Milliseconds took{0};  // from the cable's return to the session's end
    int reconnects = 0;
};

// A whole session, beginning with the cable going in: sync, controller, query, a sensor,
// its echo, close. It must end within `limit`; when the link is lost, it connects again.
// `queryMayFail`: the service may report that it has no session with the DAQ application.
[[nodiscard]] FreshSession HoldFreshSession(const vexahost::TransportFactory& cable,
                                            Milliseconds limit, bool queryMayFail);

}  // namespace vexa::soak
