// The packet format that the host, the service and the acquisition board share: offsets, types,
// checksum, and the initial-sync exchange. A leaf: it uses nothing, and the host kit uses it too.
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
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vexa {

inline constexpr std::size_t kTypeOffset = 0;
inline constexpr std::size_t kLengthOffset = 1;    // total length, header included
inline constexpr std::size_t kSequenceOffset = 2;  // chosen by the sender
inline constexpr std::size_t kChecksumOffset = 3;
inline constexpr std::size_t kPayloadOffset = 4;
inline constexpr std::size_t kCommandOffset = 4;  // of commands and replies: payload byte 0

inline constexpr std::size_t kPacketHeaderSize = 4;
inline constexpr std::size_t kMaxPacketSize = 255;
inline constexpr std::size_t kPacketBufferSize = 256;

// Type classes: the top three bits of the type byte.
inline constexpr std::uint8_t kTypeClassMask = 0xE0;
inline constexpr std::uint8_t kClassCommand = 0x40;   // to the multiplexer or the DAQ
inline constexpr std::uint8_t kClassTunnel = 0x60;    // to or from a child
inline constexpr std::uint8_t kClassDaqReply = 0xA0;  // from the DAQ

// Types that the service itself sends.
inline constexpr std::uint8_t kTypeTunnel = 0x60;
inline constexpr std::uint8_t kTypeAcknowledge = 0x98;
inline constexpr std::uint8_t kTypeError = 0x9C;
inline constexpr std::uint8_t kTypeInitialSyncReply = 0xB8;

// Tunnel packets.
inline constexpr std::size_t kTunnelIdOffset = 4;  // child id, 32-bit
inline constexpr std::size_t kTunnelHeaderSize = 8;
inline constexpr std::size_t kMaxTunnelPayload = 245;  // of one packet towards the host

// Initial sync: request of 25 bytes (command, then the signature), reply of 26 bytes (command,
// sequence of the request, then the reply signature).
inline constexpr std::uint8_t kInitialSyncCommand = 26;
inline constexpr std::size_t kInitialSyncSize = 25;
inline constexpr std::size_t kInitialSyncSignatureOffset = 5;
inline constexpr std::size_t kInitialSyncReplySize = 26;
inline constexpr std::size_t kInitialSyncReplySequenceOffset = 5;
inline constexpr std::size_t kInitialSyncReplySignatureOffset = 6;
inline constexpr std::array<std::uint8_t, 20> kInitialSyncSignature = {
    0x05, 0x4A, 0x06, 0x49, 0x07, 0x48, 0x08, 0x47, 0x09, 0x46,
    0x0A, 0x45, 0x0B, 0x44, 0x0C, 0x43, 0x0D, 0x42, 0x0E, 0x41};
inline constexpr std::array<std::uint8_t, 20> kInitialSyncReplySignature = {
    0x55, 0xAA, 0x56, 0xA9, 0x57, 0xA8, 0x58, 0xA7, 0x59, 0xA6,
    0x5A, 0xA5, 0x5B, 0xA4, 0x5C, 0xA3, 0x5D, 0xA2, 0x5E, 0xA1};

// Replies of 7 bytes: command, sequence of the request, then 0, a result or an error code.
inline constexpr std::size_t kReplySize = 7;
inline constexpr std::size_t kReplyRequestSequenceOffset = 5;
inline constexpr std::size_t kReplyCodeOffset = 6;
inline constexpr std::size_t kTunneledReplySize = kTunnelHeaderSize + kReplySize;

// Controller commands: byte 4 of the inner packet.
enum class ControllerCommand : std::uint8_t {
    kOpenChild = 0x70,
    kCloseChild = 0x71,
    kReopenController = 0x72,
    kQueryDaqApplication = 0x73,
    kTakeDaqOver = 0x74,
};

// Offsets in the inner packet of kOpenChild, kCloseChild and kReopenController.
inline constexpr std::size_t kCommandChildIdOffset = 5;     // 32-bit
inline constexpr std::size_t kCommandNameLengthOffset = 9;  // counts the terminating zero byte;
                                                            // kReopenController: 0 leaves the DAQ
inline constexpr std::size_t kCommandNameOffset = 10;
inline constexpr char kControllerName[] = "Controller";  // sent with length 11

// Error codes of replies.
enum class ReplyError : std::uint8_t {
    kDaqLinkClosed = 48,      // multiplexer command other than 26 while the DAQ link is closed
    kUnknownCommand = 49,     // controller command that is none of the above
    kTooManyOrSession = 50,   // ten children are open; or the "DAQ" session has an error
    kChildFailed = 54,        // a child could not be opened or closed
    kTakeOverDaqFailed = 57,  // the DAQ link could not be initialised during a take-over
    kReopenDaqFailed = 59,    // the DAQ link could not be initialised at a controller reopen
};

// 8-bit sum of bytes 0 to 2 and, for lengths 5 to 253, of bytes 4 to length-1. The checksum byte
// itself is never summed. `packet` holds at least 3 bytes, and as many as its length byte says.
[[nodiscard]] std::uint8_t PacketChecksum(const std::uint8_t* packet);

// Writes the checksum of `packet` into its checksum byte.
void SealPacket(std::uint8_t* packet);

// Fills in a complete initial-sync request: type 0x40, the given sequence number, checksum.
void BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize> packet, std::uint8_t sequence);

// Fills in the header of a tunnel packet that carries `payloadSize` bytes (at most 247) of the
// child `id`; the checksum is left for SealPacket, once the payload is there.
void BuildTunnelHeader(std::uint8_t* packet, std::uint32_t id, std::uint8_t sequence,
                       std::size_t payloadSize);

// 32-bit little-endian values inside a packet, at any alignment.
[[nodiscard]] inline std::uint32_t LoadLe32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8U |
           static_cast<std::uint32_t>(bytes[2]) << 16U |
           static_cast<std::uint32_t>(bytes[3]) << 24U;
}

inline void StoreLe32(std::uint8_t* bytes, std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8U);
    bytes[2] = static_cast<std::uint8_t>(value >> 16U);
    bytes[3] = static_cast<std::uint8_t>(value >> 24U);
}

[[nodiscard]] inline std::uint8_t TypeClass(std::uint8_t type) {
    return static_cast<std::uint8_t>(type & kTypeClassMask);
}

}  // namespace vexa
