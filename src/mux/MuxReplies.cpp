#include "mux/MuxReplies.h"

#include <algorithm>
#include <array>

#include "devices/HostLink.h"

namespace vexa {

namespace {

// Fills in a sealed reply of 7 bytes.
void BuildReply(std::uint8_t* reply, std::uint8_t type, std::uint8_t sequence, std::uint8_t command,
                std::uint8_t requestSequence, std::uint8_t code) {
    reply[kTypeOffset] = type;
    reply[kLengthOffset] = kReplySize;
    reply[kSequenceOffset] = sequence;
    reply[kCommandOffset] = command;
    reply[kReplyRequestSequenceOffset] = requestSequence;
    reply[kReplyCodeOffset] = code;
    SealPacket(reply);
}

}  // namespace

void MuxReplies::SendInitialSyncReply(std::uint8_t requestSequence) {
    std::array<std::uint8_t, kInitialSyncReplySize> reply{};
    reply[kTypeOffset] = kTypeInitialSyncReply;
    reply[kLengthOffset] = kInitialSyncReplySize;
    reply[kSequenceOffset] = replyCounter++;
    reply[kCommandOffset] = kInitialSyncCommand;
    reply[kInitialSyncReplySequenceOffset] = requestSequence;
    std::ranges::copy(kInitialSyncReplySignature, reply.begin() + kInitialSyncReplySignatureOffset);
    SealPacket(reply.data());
    HostLink_Write(reply.data(), kInitialSyncReplySize);
}

void MuxReplies::SendMultiplexerError(std::uint8_t command, std::uint8_t requestSequence,
                                      ReplyError code) {
    std::array<std::uint8_t, kReplySize> reply{};
    BuildReply(reply.data(), kTypeError, replyCounter++, command, requestSequence,
               static_cast<std::uint8_t>(code));
    HostLink_Write(reply.data(), kReplySize);
}

void MuxReplies::SendControllerAck(std::uint8_t command, std::uint8_t requestSequence) {
    SendControllerReply(kTypeAcknowledge, command, requestSequence, 0);
}

void MuxReplies::SendControllerError(std::uint8_t command, std::uint8_t requestSequence,
                                     ReplyError code) {
    SendControllerReply(kTypeError, command, requestSequence, static_cast<std::uint8_t>(code));
}

void MuxReplies::SendControllerResult(std::uint8_t command, std::uint8_t requestSequence,
                                      std::uint8_t value) {
    SendControllerReply(kTypeAcknowledge, command, requestSequence, value);
}

void MuxReplies::SendControllerReply(std::uint8_t type, std::uint8_t command,
                                     std::uint8_t requestSequence, std::uint8_t code) {
    const MuxChild controller = children.TakeControllerSequence();
    std::array<std::uint8_t, kTunneledReplySize> reply{};
    BuildReply(reply.data() + kTunnelHeaderSize, type, controller.seq, command, requestSequence,
               code);
    BuildTunnelHeader(reply.data(), controller.id, controller.seq, kReplySize);
    SealPacket(reply.data());
    HostLink_Write(reply.data(), kTunneledReplySize);
}

}  // namespace vexa
