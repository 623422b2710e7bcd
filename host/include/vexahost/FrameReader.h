// Removes the frame headers (protocol/FrameHeader.h) from what a unit sends over its USB link. The
// payloads, joined, are the packet stream; a frame may begin and end anywhere in a packet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "vexahost/protocol/FrameHeader.h"

namespace vexahost {

// Allocates nothing. One thread at a time.
class FrameReader {
  public:
    // The next piece of payload, a view into `input`; the bytes used are removed from the front of
    // `input`. Empty when `input` is used up, or after a violation, which stays.
    std::span<const std::uint8_t> Next(std::span<const std::uint8_t>& input);

    // True once there was a bad header.
    [[nodiscard]] bool IsViolated() const { return violated; }

    // True when the bad header is the one with which a unit turns a second host away.
    [[nodiscard]] bool IsBusy() const { return violated && vexa::IsBusyHeader(header); }

    // What is wrong with the header, with its bytes; only after a violation.
    [[nodiscard]] std::string Violation() const;

    // Good headers so far.
    [[nodiscard]] std::uint64_t FrameCount() const { return frameCount; }

  private:
    void AddHeaderByte(std::uint8_t byte);

    std::array<std::uint8_t, vexa::kFrameHeaderSize> header{};
    std::size_t headerCount = 0;    // bytes of the unfinished header
    std::uint32_t payloadLeft = 0;  // bytes of the current frame still to come
    std::uint64_t frameCount = 0;
    bool violated = false;
};

}  // namespace vexahost
