// The pcapng file format, as far as recordings of the link use it. All numbers are in the byte
// order of the machine that wrote the section; here little-endian is written and both are read.
//
//   Every block                       Enhanced packet block, the body
//  +--------------+--------------+   +-----------+-----------+----------+----------+--------+
//  | type, 4      | length, 4    |   | interface | time high | time low | captured | length |
//  +--------------+--------------+   +-----------+-----------+----------+----------+--------+
//  | body, padded to 4 bytes     |   | data, padded to 4 bytes                              |
//  +-----------------------------+   +------------------------------------------------------+
//  | length again |                  | options: code 2, length 2, value padded to 4 bytes   |
//  +--------------+                  +------------------------------------------------------+
#pragma once

#include <cstddef>
#include <cstdint>

namespace vexahost {

inline constexpr std::uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
inline constexpr std::uint32_t kInterfaceBlock = 1;
inline constexpr std::uint32_t kEnhancedPacketBlock = 6;

inline constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
inline constexpr std::uint16_t kMajorVersion = 1;
inline constexpr std::size_t kBlockOverhead = 12;      // type and both lengths
inline constexpr std::size_t kSectionHeaderSize = 28;  // of a block without options
inline constexpr std::size_t kInterfaceBodySize = 8;   // link type, reserved, snap length
inline constexpr std::size_t kPacketBodySize = 20;     // up to the data
inline constexpr std::size_t kOptionHeaderSize = 4;

inline constexpr std::uint16_t kEndOfOptions = 0;
inline constexpr std::uint16_t kCommentOption = 1;
inline constexpr std::uint16_t kInterfaceNameOption = 2;
inline constexpr std::uint16_t kTimeResolutionOption = 9;
inline constexpr std::uint8_t kDefaultTimeResolution = 6;  // microseconds
inline constexpr std::uint8_t kNanoseconds = 9;
inline constexpr std::uint8_t kBinaryResolution = 0x80;  // this bit: a power of 2, not of 10
inline constexpr std::uint16_t kPacketFlagsOption = 2;
inline constexpr std::uint32_t kDirectionMask = 3;
inline constexpr std::uint32_t kInbound = 1;  // seen from the host: from the unit
inline constexpr std::uint32_t kOutbound = 2;

// Set aside for private use; the dissector registers for it.
inline constexpr std::uint16_t kLinkType = 147;

[[nodiscard]] constexpr std::size_t Padded(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

}  // namespace vexahost
