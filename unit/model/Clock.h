// The clock that the model runs on.
#pragma once

#include <chrono>
#include <cstdint>

namespace vexa::unit {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// A time that never comes.
inline constexpr TimePoint kNever = TimePoint::max();

// Milliseconds from `start` to `now`, modulo 2^32.
[[nodiscard]] inline std::uint32_t MillisecondsBetween(TimePoint start, TimePoint now) {
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count());
}

}  // namespace vexa::unit
