// What the rest of the model stands on: its clock, its threads, and the mark for what the stand-in
// libraries use.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "testkit/Descriptor.h"

// Exports from the model's library; everything unmarked stays inside it.
#define VEXA_UNIT_EXPORT __attribute__((visibility("default")))

namespace vexa::unit {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// A time that never comes.
inline constexpr TimePoint kNever = TimePoint::max();

// Starts `body` on a thread with all signals blocked: the process's signals belong to the program
// that runs on the unit.
[[nodiscard]] std::thread StartQuietThread(std::function<void()> body);

// Joins a thread that has been told to end. On that very thread, in a callback that it runs, only
// detaches it: the thread ends after the callback has returned.
void AwaitEnd(std::thread ending);

// For an eventfd, which a thread polls: make it readable, and no longer so.
void Signal(const testkit::Descriptor& event);
void ClearSignal(const testkit::Descriptor& event);

}  // namespace vexa::unit
