// What can happen to a unit and what it leads to, as data. Sequences of events are made from a
// random seed, played to the service and to its model, printed, and cut down.
#pragma once

#include <string>
#include <vector>

#include "support/ScriptedLibraries.h"

namespace vexa::test {

enum class EventKind {
    kHostSends,      // bytes
    kPasses,         // the main loop runs `number` passes
    kStreamSends,    // bytes, from open stream `which` modulo the number of open streams
    kAnswer,         // application `which` answers command `number` with `response`
    kLink,           // the cable is in (`number` 1) or out (0)
    kAttach,         // a device of type `which` is attached (`number` 1) or not (0)
    kAnswersAtOnce,  // command `which` is answered with `response` inside the call, if `number` is
                     // 1
    kWorks,          // the library calls of kind `which` succeed (`number` 1) or fail (0)
};

struct Event {
    EventKind kind;
    Bytes bytes{};
    std::uint32_t which = 0;
    std::uint32_t number = 0;
    std::int32_t response = 0;
};

using Sequence = std::vector<Event>;

// What an event leads to, as seen from outside the service.
struct Outcome {
    Bytes toHost{};
    std::vector<std::string> calls{};   // of the libraries, except writes
    std::vector<std::string> writes{};  // to streams
    std::string printed{};
    std::int32_t result = 0;  // what the sending stream was told; whether the last pass wants more

    bool operator==(const Outcome&) const = default;
};

inline std::string DeviceName(std::uint32_t type) {
    return "device " + std::string(1, static_cast<char>('a' + type));
}

// The longest name that a device can have; it stands for a device of type 8.
inline const std::string kLongestName(219, 'n');

// A sequence made from a random seed; the same for the same seed and compiler.
Sequence MakeSequence(std::uint32_t seed);

// Changes what the libraries of the unit do, if the event says so.
void Apply(const Event& event, ScriptedLibraries& unit);

// A line for each event.
std::string Text(const Sequence& sequence);

}  // namespace vexa::test
