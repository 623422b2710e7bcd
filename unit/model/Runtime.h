// What the rest of the model stands on: its clock, its threads, and the mark for what the stand-in
// libraries use.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <new>
#include <system_error>
#include <thread>

#include "testkit/Descriptor.h"

// Exports from the model's library; everything unmarked stays inside it.
#define VEXA_UNIT_EXPORT __attribute__((visibility("default")))

namespace vexa::unit {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// A time that never comes.
inline constexpr TimePoint kNever = TimePoint::max();

// The result of `work`; when the process has no memory, thread or descriptor left for it,
// `failure`, with errno. What a program calls must not throw, and must not end the program.
template <typename Result, typename Work>
[[nodiscard]] Result OrFail(Result failure, Work work) {
    try {
        return work();
    } catch (const std::system_error& error) {
        errno = error.code().value();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return failure;
}

// An eventfd, for Signal and ClearSignal. Throws std::system_error.
[[nodiscard]] testkit::Descriptor MakeEvent();

// Starts `body` on a thread with all signals blocked: the process's signals belong to the program
// that runs on the unit. Throws std::system_error. A body that runs out of memory ends there, with
// a line on standard error.
[[nodiscard]] std::thread StartQuietThread(std::function<void()> body);

// Joins a thread that has been told to end. On that very thread, in a callback that it runs, only
// detaches it: the thread ends after the callback has returned.
void AwaitEnd(std::thread ending);

// For an eventfd, which a thread polls: make it readable, and no longer so.
void Signal(const testkit::Descriptor& event);
void ClearSignal(const testkit::Descriptor& event);

}  // namespace vexa::unit
