#include "protocol/Packet.h"

#include <numeric>

namespace vexa {

namespace {
// Payload sizes (length - 4) whose bytes are summed are those from 1 to 249. The comparison is made
// on an unsigned 16-bit value, so lengths below 4 wrap to large sizes and fall out as well.
constexpr std::uint16_t kMaxSummedPayload = 249;
}  // namespace

std::uint8_t PacketChecksum(std::span<const std::uint8_t> packet) {
    // In 8 bits, so that the compiler adds 16 bytes at a time.
    const auto add = [](std::uint8_t sum, std::uint8_t byte) {
        return static_cast<std::uint8_t>(sum + byte);
    };
    const auto size = static_cast<std::uint16_t>(packet[kLengthOffset] - kPacketHeaderSize);
    const auto payload =
        packet.subspan(kPayloadOffset, size <= kMaxSummedPayload ? std::size_t{size} : 0);
    return add(std::accumulate(payload.begin(), payload.end(), packet[kSequenceOffset], add),
               add(packet[kTypeOffset], packet[kLengthOffset]));
}

bool HasRightChecksum(std::span<const std::uint8_t> packet) {
    return packet[kChecksumOffset] == PacketChecksum(packet);
}

void SealPacket(std::span<std::uint8_t> packet) {
    packet[kChecksumOffset] = PacketChecksum(packet);
}

void BuildTunnelHeader(std::span<std::uint8_t> packet, std::uint32_t id, std::uint8_t sequence,
                       std::size_t payloadSize) {
    packet[kTypeOffset] = kTypeTunnel;
    packet[kLengthOffset] = static_cast<std::uint8_t>(kTunnelHeaderSize + payloadSize);
    packet[kSequenceOffset] = sequence;
    StoreLe32(packet, kTunnelIdOffset, id);
}

}  // namespace vexa
