// The conversation with an application, as the model has it.
#pragma once

#include <utility>

#include "model/Event.h"

namespace vexa::test {

struct ModelSession {
    std::string name;
    int holder = 0;  // of the hardware: 1 the application, 2 the host; reversed for "SPLASH"
    enum { kIdle, kAsked, kSent, kDone } state = kIdle;
    std::uint32_t command = 0;
    int time = 0;
    int response = 0;
    bool failed = false;
    bool warned = false;
    bool inFlight = false;
    bool answered = false;
    bool released = false;

    void Ask(std::uint32_t asked, int askedTime) {
        if (state != kIdle) return;
        if (asked < 3) holder = static_cast<int>(asked);
        command = asked;
        time = askedTime;
        released = false;
        state = kAsked;
    }

    void AskAndRelease(std::uint32_t asked) {
        Ask(asked, 1000);
        released = true;
    }

    // Whether the answer is there; it is used up.
    bool Finish() { return state == kDone && (state = kIdle, true); }

    void Poll(const ScriptedLibraries& unit, Outcome& now) {
        if (state == kAsked) {
            now.calls.push_back(Joined("criCommand(", name, ", ", command, ", ", time, ")"));
            inFlight = unit.commandResult == 1;
            answered = false;
            state = inFlight ? kSent : kDone;
            const auto atOnce = unit.answers.find(command);
            if (inFlight && atOnce != unit.answers.end()) Answer(command, atOnce->second, now);
            if (inFlight) return;
            response = -1;
            if (!failed) now.printed += "vexAppSession(120) : criCommand() failed.\n";
            failed = true;
        } else if (state == kSent && answered) {
            state = kDone;
            inFlight = false;
        } else if (state == kDone && released) {
            state = kIdle;
        }
    }

    void Answer(std::uint32_t about, int given, Outcome& now) {
        const bool expected = inFlight && !answered;
        if (expected && about == command) {
            answered = true;
            response = given;
        } else if (!std::exchange(warned, true)) {
            now.printed +=
                expected
                    ? Joined("vexAppSession(165) : criLib cmd received did not match expected ",
                             "value. Expected cmd = ", command, ". Received cmd = ", about, "\n")
                    : Joined("vexAppSession(154) : Unexpected criLib cmd response. Cmd = ", about,
                             ". Response = ", given, "\n");
        }
    }
};

}  // namespace vexa::test
