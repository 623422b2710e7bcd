// Packets in words.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vexahost {

enum class Direction { kToUnit, kFromUnit };

// "a0 14 00": the first `most` bytes in hex, followed by " .." when there are more.
[[nodiscard]] std::string HexText(std::span<const std::uint8_t> bytes, std::size_t most = 64);

// The device name in an open-child command, the inner packet of a tunnel packet: up to a zero byte,
// the stated length or the end of the packet, with "?" for bytes that are no printable ASCII.
[[nodiscard]] std::string DeviceNameIn(std::span<const std::uint8_t> inner);

// A packet in a few words, such as "open child 0x1001 \"Microphone\"". Mentions a wrong checksum.
// `packet` may be shorter than its length byte says, or empty.
[[nodiscard]] std::string DescribePacket(Direction direction, std::span<const std::uint8_t> packet);

}  // namespace vexahost
