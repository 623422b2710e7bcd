// Packets as a host sends and receives them, written apart from src/protocol. What the host sends
// has the sequence number 7; the controller is opened under the id 0x11223344.
#pragma once

#include <string>

#include "support/Bytes.h"

namespace vexa::test {

inline constexpr std::uint32_t kControllerId = 0x11223344;

// 32-bit, little-endian.
inline Bytes Le32(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8U),
            static_cast<std::uint8_t>(value >> 16U), static_cast<std::uint8_t>(value >> 24U)};
}

inline Bytes InitialSync(std::uint8_t sequence = 7) {
    return Sealed(Bytes{0x40, 25, sequence, 0} +
                  Hex("1a 05 4a 06 49 07 48 08 47 09 46 0a 45 0b 44 0c 43 0d 42 0e 41"));
}

// The answer to an initial sync.
inline Bytes SyncAnswer(std::uint8_t sequence, std::uint8_t requestSequence) {
    return Sealed(Bytes{0xB8, 26, sequence, 0, 26, requestSequence} +
                  Hex("55 aa 56 a9 57 a8 58 a7 59 a6 5a a5 5b a4 5c a3 5d a2 5e a1"));
}

// What the board answers to the service.
inline Bytes DaqSyncAnswer() { return SyncAnswer(0, 77); }

inline Bytes Tunnel(std::uint32_t id, const Bytes& payload, std::uint8_t sequence = 7) {
    const Bytes header = {0x60, static_cast<std::uint8_t>(payload.size() + 8), sequence, 0};
    return Sealed(header + Le32(id) + payload);
}

// A command to the control channel.
inline Bytes ToController(std::uint8_t command, const Bytes& rest) {
    const Bytes header = {0x40, static_cast<std::uint8_t>(rest.size() + 5), 7, 0, command};
    return Tunnel(kControllerId, Sealed(header + rest));
}

inline Bytes OpenController(bool withDaq) {
    return ToController(0x72, Le32(kControllerId) + Bytes{static_cast<std::uint8_t>(withDaq)});
}

inline Bytes OpenChild(std::uint32_t id, const std::string& name) {
    const Bytes length = {static_cast<std::uint8_t>(name.size() + 1)};
    return ToController(0x70, Le32(id) + length + Bytes(name.begin(), name.end()) + Bytes{0});
}

inline Bytes CloseChild(std::uint32_t id) { return ToController(0x71, Le32(id)); }

// What the controller replies.
inline std::string ControllerReply(std::uint8_t sequence, std::uint8_t type, std::uint8_t command,
                                   std::uint8_t code, std::uint8_t requestSequence = 7) {
    const Bytes inner = Sealed({type, 7, sequence, 0, command, requestSequence, code});
    return ToHex(Tunnel(kControllerId, inner, sequence));
}

// What a block of a child's data arrives as.
inline std::string ChildData(std::uint32_t id, std::uint8_t sequence, const Bytes& block) {
    return ToHex(Tunnel(id, block, sequence));
}

}  // namespace vexa::test
