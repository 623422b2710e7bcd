// What comes from children and the DAQ, and counts of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace vexahost {

/// A block that a child sent, or a packet of the DAQ.
struct Block {
    std::vector<std::uint8_t> bytes;
    std::chrono::steady_clock::time_point receivedAt;
    bool checksumRight = true;  // of a DAQ packet: the unit passes them on right or wrong
    std::uint8_t sequence =
        0;  // the unit's own count of the child's blocks; of a DAQ packet its own
};

struct ChildStatistics {
    std::uint64_t blocks = 0;        // received, dropped ones included
    std::uint64_t bytes = 0;         // in these blocks
    std::uint64_t sequenceGaps = 0;  // times that the unit's sequence number was not the next one
    std::uint64_t dropped = 0;       // blocks dropped here because nobody received them in time
};

struct ClientStatistics {
    std::uint64_t frames = 0;
    std::uint64_t packets = 0;
    std::uint64_t wrongChecksums = 0;  // packets dropped for it; DAQ packets are not dropped
    std::uint64_t strayReplies = 0;    // replies that no request waits for (any more)
    std::uint64_t strayPackets = 0;    // tunnel packets for no open child; packets of no known kind
    std::uint64_t daqDropped = 0;      // DAQ packets dropped because nobody received them in time
};

}  // namespace vexahost
