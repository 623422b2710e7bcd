// The initial-sync exchange, with which a host synchronises with the service, and the service with
// the acquisition board.
//
//   request   0            1    2         3          4    5 .. 24
//            +------------+----+---------+----------+----+-------------------------------+
//            | class 0x40 | 25 | sequence| checksum | 26 | signature 05 4A 06 49 .. 0E 41|
//            +------------+----+---------+----------+----+-------------------------------+
//
//   reply     0            1    2         3          4    5             6 .. 25
//            +------------+----+---------+----------+----+-------------+-----------------+
//            | class 0xA0 | 26 | sequence| checksum | 26 | sequence of | signature       |
//            | (0xB8)     |    |         |          |    | the request | 55 AA .. 5E A1  |
//            +------------+----+---------+----------+----+-------------+-----------------+
#pragma once

#include <array>

#include "Packet.h"

namespace vexa {

inline constexpr std::uint8_t kInitialSyncCommand = 26;
inline constexpr std::size_t kInitialSyncSize = 25;
inline constexpr std::size_t kInitialSyncSignatureOffset = 5;
inline constexpr std::array<std::uint8_t, 20> kInitialSyncSignature = {
    0x05, 0x4A, 0x06, 0x49, 0x07, 0x48, 0x08, 0x47, 0x09, 0x46,
    0x0A, 0x45, 0x0B, 0x44, 0x0C, 0x43, 0x0D, 0x42, 0x0E, 0x41};

inline constexpr std::uint8_t kTypeInitialSyncReply = 0xB8;
inline constexpr std::size_t kInitialSyncReplySize = 26;
inline constexpr std::size_t kInitialSyncReplySequenceOffset = 5;  // of the request
inline constexpr std::size_t kInitialSyncReplySignatureOffset = 6;
inline constexpr std::array<std::uint8_t, 20> kInitialSyncReplySignature = {
    0x55, 0xAA, 0x56, 0xA9, 0x57, 0xA8, 0x58, 0xA7, 0x59, 0xA6,
    0x5A, 0xA5, 0x5B, 0xA4, 0x5C, 0xA3, 0x5D, 0xA2, 0x5E, 0xA1};

// Whether `bytes` are exactly one request or reply with the right checksum, whoever sent it. The
// low bits of the type byte and the sequence numbers may have any value.
[[nodiscard]] bool IsInitialSync(std::span<const std::uint8_t> bytes);
[[nodiscard]] bool IsInitialSyncReply(std::span<const std::uint8_t> bytes);

// Fill in a whole packet, checksum included.
void BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize> packet, std::uint8_t sequence);
void BuildInitialSyncReply(std::span<std::uint8_t, kInitialSyncReplySize> packet,
                           std::uint8_t sequence, std::uint8_t requestSequence);

}  // namespace vexa
