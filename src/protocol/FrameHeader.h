// The header before each chunk that the unit sends over USB:
//
//   0                 4                 8
//  +-----------------+-----------------+-----------------
//  | payload length  | 'U' '0' '1' '2' | payload          length 32-bit little-endian, 1 .. 30000
//  +-----------------+-----------------+-----------------
//
#pragma once

#include <algorithm>
#include <array>

#include "Packet.h"

namespace vexa {

inline constexpr std::size_t kFrameHeaderSize = 8;
inline constexpr std::size_t kFrameMarkOffset = 4;
inline constexpr std::array<std::uint8_t, 4> kFrameMark = {'U', '0', '1', '2'};
inline constexpr std::uint32_t kMaxFramePayload = 30000;

inline void BuildFrameHeader(std::span<std::uint8_t, kFrameHeaderSize> header,
                             std::uint32_t payloadSize) {
    StoreLe32(header.first<4>(), payloadSize);
    std::ranges::copy(kFrameMark, header.begin() + kFrameMarkOffset);
}

// The payload length that a header gives, whether the header is good or not.
[[nodiscard]] inline std::uint32_t FramePayloadSize(
    std::span<const std::uint8_t, kFrameHeaderSize> header) {
    return LoadLe32(header.first<4>());
}

[[nodiscard]] inline bool HasFrameMark(std::span<const std::uint8_t, kFrameHeaderSize> header) {
    return std::ranges::equal(header.subspan<kFrameMarkOffset>(), kFrameMark);
}

[[nodiscard]] inline bool IsFrameHeader(std::span<const std::uint8_t, kFrameHeaderSize> header) {
    const std::uint32_t size = FramePayloadSize(header);
    return HasFrameMark(header) && size > 0 && size <= kMaxFramePayload;
}

// In place of the first header, to a host that connects while another one is connected: a length of
// 0, then "BUSY". Only links that a second host can reach know it; a USB cable has one end.
inline constexpr std::array<std::uint8_t, kFrameHeaderSize> kBusyHeader = {0,   0,   0,   0,
                                                                           'B', 'U', 'S', 'Y'};

[[nodiscard]] inline bool IsBusyHeader(std::span<const std::uint8_t, kFrameHeaderSize> header) {
    return std::ranges::equal(header, kBusyHeader);
}

}  // namespace vexa
