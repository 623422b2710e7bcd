// Takes the frame headers (protocol/FrameHeader.h) out of what a unit sends over its USB link.
// The payloads, joined, are the packet stream; a frame may begin and end anywhere in a packet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "vexahost/protocol/FrameHeader.h"

namespace vexahost {

/// Takes the frame headers out of the byte stream. Allocates nothing; used by one thread.
class FrameReader {
  public:
    /// The next piece of payload at the front of `input`, as a view into it; `input` is moved past
    /// it. Empty when `input` is used up, or at a violation, from which there is no way on.
    std::span<const std::uint8_t> Next(std::span<const std::uint8_t>& input);

    /// True once a header was no header of a unit's.
    [[nodiscard]] bool IsViolated() const { return violated; }

    /// What is wrong with the header, with its bytes; only after a violation.
    [[nodiscard]] std::string Violation() const;

    /// Complete, good headers so far.
    [[nodiscard]] std::uint64_t FrameCount() const { return frameCount; }

  private:
    void TakeHeaderByte(std::uint8_t byte);

    std::array<std::uint8_t, vexa::kFrameHeaderSize> header{};
    std::size_t headerCount = 0;    // bytes of the next header that have come
    std::uint32_t payloadLeft = 0;  // bytes of the current frame still to come
    std::uint64_t frameCount = 0;
    bool violated = false;
};

}  // namespace vexahost
