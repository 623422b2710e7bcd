// Replies of 7 bytes: to a multiplexer command as they stand, to a controller command inside a
// tunnel packet.
//
//   0            1   2         3          4         5                6
//  +------------+---+---------+----------+---------+----------------+-------------------------+
//  | 0x98, 0x9C | 7 | sequence| checksum | command | sequence of    | 0, a result (0x98), or  |
//  | DAQ: 0xB8  |   |         |          |         | the request    | an error code (0x9C)    |
//  +------------+---+---------+----------+---------+----------------+-------------------------+
#pragma once

#include <string_view>

#include "Packet.h"

namespace vexa {

inline constexpr std::uint8_t kTypeAcknowledge = 0x98;
inline constexpr std::uint8_t kTypeError = 0x9C;
inline constexpr std::uint8_t kTypeDaqAcknowledge = 0xB8;

inline constexpr std::size_t kReplySize = 7;
inline constexpr std::size_t kReplyRequestSequenceOffset = 5;
inline constexpr std::size_t kReplyCodeOffset = 6;
inline constexpr std::size_t kTunneledReplySize = kTunnelHeaderSize + kReplySize;

// Error codes.
enum class ReplyError : std::uint8_t {
    kDaqLinkClosed = 48,      // multiplexer command other than 26 while the DAQ link is closed
    kUnknownCommand = 49,     // controller command that is none of the known ones
    kRefused = 50,            // ten children are open; or the "DAQ" session has an error
    kChildFailed = 54,        // a child could not be opened or closed
    kTakeOverDaqFailed = 57,  // the DAQ link could not be initialised during a take-over
    kReopenDaqFailed = 59,    // the DAQ link could not be initialised at a controller reopen
};

// Whether `packet` is a whole reply of the service, and of the DAQ. The checksum is not looked at.
[[nodiscard]] bool IsServiceReply(std::span<const std::uint8_t> packet);
[[nodiscard]] bool IsDaqReply(std::span<const std::uint8_t> packet);

// Fills in a whole reply, checksum included.
void BuildReply(std::span<std::uint8_t, kReplySize> packet, std::uint8_t type,
                std::uint8_t sequence, std::uint8_t command, std::uint8_t requestSequence,
                std::uint8_t code);

// What an error code in the reply to `command` means, in words; "unknown error" for a code that the
// service does not send.
[[nodiscard]] std::string_view ErrorMeaning(std::uint8_t command, std::uint8_t code);

}  // namespace vexa
