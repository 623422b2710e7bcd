#include "protocol/Replies.h"

#include "protocol/Commands.h"

namespace vexa {

namespace {

bool IsReply(std::span<const std::uint8_t> packet) {
    return packet.size() == kReplySize && packet[kLengthOffset] == kReplySize;
}

}  // namespace

bool IsServiceReply(std::span<const std::uint8_t> packet) {
    return IsReply(packet) &&
           (packet[kTypeOffset] == kTypeAcknowledge || packet[kTypeOffset] == kTypeError);
}

bool IsDaqReply(std::span<const std::uint8_t> packet) {
    return IsReply(packet) && packet[kTypeOffset] == kTypeDaqAcknowledge;
}

void BuildReply(std::span<std::uint8_t, kReplySize> packet, std::uint8_t type,
                std::uint8_t sequence, std::uint8_t command, std::uint8_t requestSequence,
                std::uint8_t code) {
    packet[kTypeOffset] = type;
    packet[kLengthOffset] = kReplySize;
    packet[kSequenceOffset] = sequence;
    packet[kCommandOffset] = command;
    packet[kReplyRequestSequenceOffset] = requestSequence;
    packet[kReplyCodeOffset] = code;
    SealPacket(packet);
}

std::string_view ErrorMeaning(std::uint8_t command, std::uint8_t code) {
    switch (static_cast<ReplyError>(code)) {
        case ReplyError::kDaqLinkClosed:
            return "the DAQ link is closed";
        case ReplyError::kUnknownCommand:
            return "the controller does not know this command";
        case ReplyError::kRefused:
            return command == static_cast<std::uint8_t>(ControllerCommand::kOpenChild)
                       ? "ten children are open already"
                       : "the session with the DAQ application has failed";
        case ReplyError::kChildFailed:
            return "the child could not be opened or closed";
        case ReplyError::kTakeOverDaqFailed:
            return "the DAQ did not come up during the take-over";
        case ReplyError::kReopenDaqFailed:
            return "the DAQ did not come up when the controller was opened";
    }
    return "unknown error";
}

}  // namespace vexa
