// What can happen to a unit, as data: a sequence of events is played to the service and to the
// model of it, made up at random from a number, printed, and cut down.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/Bytes.h"

namespace vexa::test {

enum class EventKind {
    kHostSends,    // bytes
    kPasses,       // the main loop goes round `number` times
    kStreamSends,  // bytes, from the open stream that comes `number`th, counted round
    kAnswer,       // application `number` answers `command` with `response`
    kLink,         // the cable is out or in: `number` 0 or 1
    kDevice,       // type `number` is attached, `command` 1, or not, 0
    kStreamsOpen,  // opening a stream fails or works: `number` 0 or 1; likewise below
    kWritesSucceed,
    kPlainOpens,
    kCommandsSucceed,
    kAnswersAtOnce,  // the applications answer `command` inside the call, by `response`; `number` 0
                     // ends that
};

struct Event {
    EventKind kind = EventKind::kPasses;
    Bytes bytes;
    std::uint32_t number = 0;
    std::uint32_t command = 0;
    std::int32_t response = 0;
};

using Sequence = std::vector<Event>;

// The sequence of that number: always the same.
Sequence MakeSequence(std::uint32_t number);

// A line for each event.
std::string Text(const Sequence& sequence);

}  // namespace vexa::test
