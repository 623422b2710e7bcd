// The packet format that host, service, acquisition board and sensors share.
//
//   0        1        2         3          4 .. length-1
//  +--------+--------+---------+----------+----------------+
//  | type   | length | sequence| checksum | payload        |     multi-byte values little-endian
//  +--------+--------+---------+----------+----------------+
//
// A tunnel packet (type class 0x60) carries a child id and an inner packet of the same format:
//
//   0        1        2         3          4 .. 7     8        9        10        11         12
//  +--------+--------+---------+----------+----------+--------+--------+---------+----------+-----
//  | 0x60   | length | sequence| checksum | child id | type   | length | sequence| checksum | ...
//  +--------+--------+---------+----------+----------+--------+--------+---------+----------+-----
//
// Everything in this folder is a pure function or a constant: any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vexa {

inline constexpr std::size_t kTypeOffset = 0;
inline constexpr std::size_t kLengthOffset = 1;    // total length in bytes, header included
inline constexpr std::size_t kSequenceOffset = 2;  // chosen by the sender
inline constexpr std::size_t kChecksumOffset = 3;
inline constexpr std::size_t kPayloadOffset = 4;
inline constexpr std::size_t kCommandOffset = 4;  // of commands and replies: payload byte 0

inline constexpr std::size_t kPacketHeaderSize = 4;
inline constexpr std::size_t kMaxPacketSize = 255;
inline constexpr std::size_t kPacketBufferSize = 256;

// A packet in a buffer that can hold any: every field can be read, whatever the length byte says.
using PacketBuffer = std::span<const std::uint8_t, kPacketBufferSize>;

// Type classes: the top three bits of the type byte.
inline constexpr std::uint8_t kTypeClassMask = 0xE0;
inline constexpr std::uint8_t kClassCommand = 0x40;  // to the multiplexer or the DAQ
inline constexpr std::uint8_t kClassTunnel = 0x60;   // to or from a child
inline constexpr std::uint8_t kClassDaq = 0xA0;      // from the DAQ; also initial-sync replies

[[nodiscard]] constexpr std::uint8_t TypeClass(std::uint8_t type) {
    return static_cast<std::uint8_t>(type & kTypeClassMask);
}

// Tunnel packets.
inline constexpr std::uint8_t kTypeTunnel = 0x60;
inline constexpr std::size_t kTunnelIdOffset = 4;  // child id, 32-bit
inline constexpr std::size_t kTunnelHeaderSize = 8;
inline constexpr std::size_t kMaxTunnelPayload = 245;  // of one packet to the host

// The inner packet of a tunnel packet in its buffer.
using InnerBuffer = std::span<const std::uint8_t, kPacketBufferSize - kTunnelHeaderSize>;
[[nodiscard]] inline InnerBuffer InnerPacket(PacketBuffer packet) {
    return packet.subspan<kTunnelHeaderSize>();
}

// 8-bit sum of bytes 0 to 2 and, for lengths 5 to 253, of bytes 4 to length - 1. The checksum byte
// itself is never summed. `packet` holds at least 4 bytes, and as many as its length byte says.
[[nodiscard]] std::uint8_t PacketChecksum(std::span<const std::uint8_t> packet);

// Whether the checksum byte of `packet` is right. Sizes as for PacketChecksum.
[[nodiscard]] bool HasRightChecksum(std::span<const std::uint8_t> packet);

// Writes the checksum of `packet` into its checksum byte. Sizes as for PacketChecksum.
void SealPacket(std::span<std::uint8_t> packet);

// Fills in the header of a tunnel packet that carries `payloadSize` bytes (at most 247) of the
// child `id`. The checksum is left for SealPacket, once the payload is there.
void BuildTunnelHeader(std::span<std::uint8_t> packet, std::uint32_t id, std::uint8_t sequence,
                       std::size_t payloadSize);

// 32-bit little-endian values inside a packet, at any alignment.
[[nodiscard]] inline std::uint32_t LoadLe32(std::span<const std::uint8_t, 4> bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8U |
           static_cast<std::uint32_t>(bytes[2]) << 16U |
           static_cast<std::uint32_t>(bytes[3]) << 24U;
}

inline void StoreLe32(std::span<std::uint8_t, 4> bytes, std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8U);
    bytes[2] = static_cast<std::uint8_t>(value >> 16U);
    bytes[3] = static_cast<std::uint8_t>(value >> 24U);
}

// The value at `offset`, which must lie at least 4 bytes before the end.
[[nodiscard]] inline std::uint32_t LoadLe32(std::span<const std::uint8_t> bytes,
                                            std::size_t offset) {
    return LoadLe32(bytes.subspan(offset).first<4>());
}

inline void StoreLe32(std::span<std::uint8_t> bytes, std::size_t offset, std::uint32_t value) {
    StoreLe32(bytes.subspan(offset).first<4>(), value);
}

}  // namespace vexa
