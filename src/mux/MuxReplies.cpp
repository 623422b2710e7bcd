#include "mux/MuxReplies.h"

#include <array>

#include "devices/HostLink.h"
#include "protocol/InitialSync.h"

namespace vexa {

void MuxReplies::SendInitialSyncReply(std::uint8_t requestSequence) {
    std::array<std::uint8_t, kInitialSyncReplySize> reply{};
    BuildInitialSyncReply(reply, replyCounter++, requestSequence);
    HostLink_Write(reply.data(), kInitialSyncReplySize);
}

void MuxReplies::SendMultiplexerError(std::uint8_t command, std::uint8_t requestSequence,
                                      ReplyError code) {
    std::array<std::uint8_t, kReplySize> reply{};
    BuildReply(reply, kTypeError, replyCounter++, command, requestSequence,
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
    BuildReply(std::span(reply).subspan<kTunnelHeaderSize>(), type, controller.seq, command,
               requestSequence, code);
    BuildTunnelHeader(reply, controller.id, controller.seq, kReplySize);
    SealPacket(reply);
    HostLink_Write(reply.data(), kTunneledReplySize);
}

}  // namespace vexa
