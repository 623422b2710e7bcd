// Plays the unit's side of a recording to a host.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "testkit/Descriptor.h"

namespace vexa::unit {

// What a recording holds.
struct PlayedRecord {
    enum class Kind {
        kCableIn,   // a host has connected
        kCableOut,  // and has disconnected
        kFrame,     // that the unit has sent
        kRequest,   // what the host has sent in one write
    };

    Kind kind = Kind::kFrame;
    std::chrono::nanoseconds time{};
    std::vector<std::uint8_t> bytes = {};
};

struct PlaybackOptions {
    bool atPace = false;  // with the recorded times between the frames; else as fast as can be
    std::chrono::milliseconds patience{5000};  // how long to wait for what the host has to send
};

// What has come of it. Records are numbered from 1.
struct PlaybackResult {
    std::size_t frames = 0;    // that were sent
    std::size_t requests = 0;  // that the host has sent as recorded
    std::size_t differences = 0;
    std::string firstDifference = {};  // empty: the host did as recorded
};

// Plays records in their order to the hosts that connect to `listener`, one after the other, and
// waits for the last one to leave. A frame is sent once the host has sent as many bytes as it had
// sent before that frame in the recording, or has been waited for long enough.
[[nodiscard]] PlaybackResult PlayRecords(const std::vector<PlayedRecord>& records,
                                         const testkit::Descriptor& listener,
                                         const PlaybackOptions& options);

}  // namespace vexa::unit
