#include "protocol/InitialSync.h"

#include <algorithm>

namespace vexa {

bool IsInitialSync(std::span<const std::uint8_t> bytes) {
    return bytes.size() == kInitialSyncSize &&
           std::ranges::equal(bytes.subspan(kInitialSyncSignatureOffset), kInitialSyncSignature) &&
           TypeClass(bytes[kTypeOffset]) == kClassCommand &&
           bytes[kLengthOffset] == kInitialSyncSize &&
           bytes[kCommandOffset] == kInitialSyncCommand && HasRightChecksum(bytes);
}

bool IsInitialSyncReply(std::span<const std::uint8_t> bytes) {
    return bytes.size() == kInitialSyncReplySize &&
           std::ranges::equal(bytes.subspan(kInitialSyncReplySignatureOffset),
                              kInitialSyncReplySignature) &&
           TypeClass(bytes[kTypeOffset]) == kClassDaq &&
           bytes[kLengthOffset] == kInitialSyncReplySize &&
           bytes[kCommandOffset] == kInitialSyncCommand && HasRightChecksum(bytes);
}

void BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize> packet, std::uint8_t sequence) {
    packet[kTypeOffset] = kClassCommand;
    packet[kLengthOffset] = kInitialSyncSize;
    packet[kSequenceOffset] = sequence;
    packet[kCommandOffset] = kInitialSyncCommand;
    std::ranges::copy(kInitialSyncSignature, packet.begin() + kInitialSyncSignatureOffset);
    SealPacket(packet);
}

void BuildInitialSyncReply(std::span<std::uint8_t, kInitialSyncReplySize> packet,
                           std::uint8_t sequence, std::uint8_t requestSequence) {
    packet[kTypeOffset] = kTypeInitialSyncReply;
    packet[kLengthOffset] = kInitialSyncReplySize;
    packet[kSequenceOffset] = sequence;
    packet[kCommandOffset] = kInitialSyncCommand;
    packet[kInitialSyncReplySequenceOffset] = requestSequence;
    std::ranges::copy(kInitialSyncReplySignature,
                      packet.begin() + kInitialSyncReplySignatureOffset);
    SealPacket(packet);
}

}  // namespace vexa
