// What a run under load came to.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "LoadChecker.h"

namespace vexa::soak {

// What the output path carries in a second: 10,000 bytes every 30 ms.
inline constexpr double kMostBytesPerSecond = 10000 / 0.030;

struct LoadResult {
    std::string failure;  // that ended the link before its time; empty: none did
    double seconds = 0;
    double fromUnit = 0;  // bytes a second, as are those below
    double toUnit = 0;
    std::chrono::milliseconds longestPause{0};  // in which nothing came from the unit
    LoadCounts counts;
    std::uint64_t echoesSent = 0;
    std::uint64_t openings = 0;  // of controller and children, each answered, as are
    std::uint64_t queries = 0;
    std::uint64_t taken = 0;    // blocks and echoes that the service took from the devices
    std::uint64_t refused = 0;  // and those that it did not take

    // Taken, but never received.
    [[nodiscard]] std::uint64_t Lost() const;
    // All that was sent came, once and in order.
    [[nodiscard]] bool IsClean() const;
};

// On standard output, for people or as a line of JSON.
void PrintLoad(const LoadResult& result, bool json);

}  // namespace vexa::soak
