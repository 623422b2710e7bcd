// One record of a capture.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

#include "vexahost/Describe.h"

namespace vexahost {

/// When a frame passed the recorder: time since 1970-01-01 00:00 UTC.
using CaptureTime = std::chrono::nanoseconds;

/// What a unit sent as one frame (with its 8-byte header), what a host sent in one go (no header:
/// a host has none), or, with no bytes, an event that the comment names.
struct CapturedFrame {
    CaptureTime time{};
    Direction direction = Direction::kToUnit;
    std::span<const std::uint8_t> bytes;  // borrowed
    std::string comment;                  // empty: none
};

/// Comments of events: a host connected, and left.
inline constexpr char kCableIn[] = "cable in";
inline constexpr char kCableOut[] = "cable out";

}  // namespace vexahost
