#include "mux/Packet.h"

#include <algorithm>

namespace vexa {

namespace {
// Payload sizes (length - 4) whose bytes are summed are those from 1 to 249; the comparison is made
// on an unsigned 16-bit value, so lengths below 4 wrap to large sizes and fall out as well.
constexpr std::uint16_t kMaxSummedPayload = 249;
}  // namespace

std::uint8_t PacketChecksum(const std::uint8_t* packet) {
    unsigned sum = packet[kTypeOffset] + packet[kLengthOffset] + packet[kSequenceOffset];
    const auto payload = static_cast<std::uint16_t>(packet[kLengthOffset] - kPacketHeaderSize);
    if (payload <= kMaxSummedPayload) {
        const std::uint8_t* byte = packet + kPayloadOffset;
        for (unsigned left = payload; left > 0; --left) sum += *byte++;
    }
    return static_cast<std::uint8_t>(sum);
}

void SealPacket(std::uint8_t* packet) { packet[kChecksumOffset] = PacketChecksum(packet); }

void BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize> packet, std::uint8_t sequence) {
    packet[kTypeOffset] = kClassCommand;
    packet[kLengthOffset] = kInitialSyncSize;
    packet[kSequenceOffset] = sequence;
    packet[kCommandOffset] = kInitialSyncCommand;
    std::ranges::copy(kInitialSyncSignature, packet.begin() + kInitialSyncSignatureOffset);
    SealPacket(packet.data());
}

void BuildTunnelHeader(std::uint8_t* packet, std::uint32_t id, std::uint8_t sequence,
                       std::size_t payloadSize) {
    packet[kTypeOffset] = kTypeTunnel;
    packet[kLengthOffset] = static_cast<std::uint8_t>(kTunnelHeaderSize + payloadSize);
    packet[kSequenceOffset] = sequence;
    StoreLe32(packet + kTunnelIdOffset, id);
}

}  // namespace vexa
