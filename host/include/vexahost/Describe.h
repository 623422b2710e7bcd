// Packets in words.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vexahost {

enum class Direction { kToUnit, kFromUnit };

/// "a0 14 00": the first `most` bytes in hex, with " .." behind them when there are more.
[[nodiscard]] std::string HexText(std::span<const std::uint8_t> bytes, std::size_t most = 64);

/// What a packet says, in a few words without its bytes, e.g.
/// "to controller 1: open child 0x1001 \"Microphone\"". A wrong checksum is said. `packet` may be
/// shorter than its length byte says, or empty.
[[nodiscard]] std::string DescribePacket(Direction direction, std::span<const std::uint8_t> packet);

}  // namespace vexahost
