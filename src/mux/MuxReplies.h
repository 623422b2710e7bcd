// Builds the service's own replies and sends them to the host. Main thread only.
//
// Multiplexer-level reply, 7 bytes; the initial-sync reply has 26 and ends in the reply signature:
//
//   0        1    2              3          4         5                  6
//  +--------+----+--------------+----------+---------+------------------+------------+
//  | 0x9C   | 7  | reply counter| checksum | command | request sequence | error code |
//  +--------+----+--------------+----------+---------+------------------+------------+
//
// Controller reply, 15 bytes: a tunnel packet of the controller entry with such a reply inside:
//
//   0      1    2   3          4 .. 7          8            9   10  11         12 .. 14
//  +------+----+---+----------+---------------+------------+---+---+----------+-----------------
//  | 0x60 | 15 | S | checksum | controller id | 0x98, 0x9C | 7 | S | checksum | command, request
//  +------+----+---+----------+---------------+------------+---+---+----------+ sequence, code
#pragma once

#include <cstdint>

#include "mux/MuxChildren.h"
#include "mux/Packet.h"

namespace vexa {

class MuxReplies {
  public:
    explicit MuxReplies(MuxChildren& children_) : children(children_) {}

    // Multiplexer-level replies are numbered from 0 again.
    void ResetCounter() { replyCounter = 0; }

    void SendInitialSyncReply(std::uint8_t requestSequence);
    void SendMultiplexerError(std::uint8_t command, std::uint8_t requestSequence, ReplyError code);

    // Controller replies carry the id and the next sequence number of the controller entry, zeros
    // when there is none left.
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
