// Data from children and the DAQ, and statistics.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "vexahost/Packet.h"

namespace vexahost {

// A block that a child sent, or a packet of the DAQ.
struct Block {
    std::vector<std::uint8_t> bytes;
    std::chrono::steady_clock::time_point receivedAt;
    bool checksumRight = true;  // the unit passes DAQ packets on even with a wrong checksum
    // The unit's count of the child's blocks, modulo 256; of a DAQ packet the DAQ's own number.
    std::uint8_t sequence = 0;
};

// A block with its sender.
struct Received {
    std::optional<ChildId> child;  // nothing: the DAQ
    Block block;
};

struct ChildStatistics {
    std::uint64_t blocks = 0;        // received, dropped ones included
    std::uint64_t bytes = 0;         // in these blocks
    std::uint64_t sequenceGaps = 0;  // times that a sequence number did not follow the last one
    std::uint64_t dropped = 0;       // dropped from a full queue
};

struct ClientStatistics {
    std::uint64_t frames = 0;
    std::uint64_t packets = 0;
    std::uint64_t wrongChecksums = 0;     // packets dropped because of their checksum
    std::uint64_t strayReplies = 0;       // replies for which no request waits (any more)
    std::uint64_t strayPackets = 0;       // tunnel packets for no open child; unknown packets
    std::uint64_t daqPackets = 0;         // received from the DAQ, dropped ones included
    std::uint64_t daqBytes = 0;           // in these packets
    std::uint64_t daqWrongChecksums = 0;  // of these packets; they are not dropped
    std::uint64_t daqDropped = 0;         // dropped from a full queue
    std::uint64_t daqSequenceGaps = 0;    // times that the DAQ's number did not follow its last one
    // Times that the packets were no longer where they had to be, as after an overflow of the
    // unit's output buffer, and the client searched for the next one.
    std::uint64_t resynchronisations = 0;
};

}  // namespace vexahost
