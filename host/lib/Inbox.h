// Blocks of the children and packets of the DAQ, until they are received.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include "vexahost/Block.h"
#include "vexahost/Expected.h"
#include "vexahost/Packet.h"

namespace vexahost {

/// Safe from any thread.
class Inbox {
  public:
    using Deadline = std::chrono::steady_clock::time_point;

    /// `capacity` blocks are kept for each child and for the DAQ.
    explicit Inbox(std::size_t capacity);

    /// From here on blocks of `child` are kept; its sequence numbers begin at 0. False when it is
    /// open already.
    bool Open(ChildId child);

    void Remove(ChildId child);
    void RemoveAll();

    /// A block of `child`. False when it is not open.
    bool Deliver(ChildId child, Block block);

    void DeliverDaq(Block block);

    /// Waits for the oldest block. Those that came before the link ended are still given.
    Expected<Block> Receive(ChildId child, Deadline deadline);
    Expected<Block> ReceiveDaq(Deadline deadline);

    /// Ends all waits, present and to come, with `error`; the first call counts.
    void Fail(const Error& error);

    /// After Fail: drops all children and packets and lets new waits begin. Those that waited at
    /// Fail still end with its error.
    void Restart();

    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;
    [[nodiscard]] std::uint64_t DaqDropped() const;

  private:
    struct Child {
        std::deque<Block> blocks;
        std::uint8_t expectedSequence = 0;
        ChildStatistics statistics;
    };

    // Waits until `queue`, looked up anew each time, has a block or is gone (null).
    template <typename FindQueue>
    Expected<Block> TakeFrom(FindQueue queue, Deadline deadline);

    const std::size_t capacity;
    mutable std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::map<ChildId, Child> children;
    std::deque<Block> daqPackets;
    std::uint64_t daqDropped = 0;
    std::uint64_t connection = 0;  // counts the calls of Restart
    std::optional<Error> linkError;
    Error lastError{};  // of the connection before this one
};

}  // namespace vexahost
