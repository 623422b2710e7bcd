// Builds the service's own replies (protocol/Replies.h) and sends them to the host. Main thread
// only.
#pragma once

#include <cstdint>

#include "mux/MuxChildren.h"
#include "protocol/Commands.h"
#include "protocol/Replies.h"

namespace vexa {

class MuxReplies {
  public:
    explicit MuxReplies(MuxChildren& children_) : children(children_) {}

    // Multiplexer-level replies are numbered from 0 again.
    void ResetCounter() { replyCounter = 0; }

    void SendInitialSyncReply(std::uint8_t requestSequence);
    void SendMultiplexerError(std::uint8_t command, std::uint8_t requestSequence, ReplyError code);

    // Controller replies travel in a tunnel packet with the id and the next sequence number of the
    // controller entry; both are 0 when there is no entry any more.
    void SendControllerAck(std::uint8_t command, std::uint8_t requestSequence);
    void SendControllerError(std::uint8_t command, std::uint8_t requestSequence, ReplyError code);
    void SendControllerResult(std::uint8_t command, std::uint8_t requestSequence,
                              std::uint8_t value);

  private:
    void SendControllerReply(std::uint8_t type, std::uint8_t command, std::uint8_t requestSequence,
                             std::uint8_t code);

    MuxChildren& children;
    std::uint8_t replyCounter = 0;
};

}  // namespace vexa
