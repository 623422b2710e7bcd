// What comes from a unit, until somebody receives it: replies to requests, blocks of children,
// packets of the DAQ. All waits end with the link.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Mutex.h"
#include "vexahost/Block.h"
#include "vexahost/Expected.h"
#include "vexahost/Packet.h"

namespace vexahost {

enum class ReplySource { kInitialSync, kMultiplexer, kController };

// A reply: the fields that tell which request it answers, and its bytes.
struct Reply {
    ReplySource source;
    bool isError;
    std::uint8_t command;
    std::uint8_t requestSequence;
    std::uint8_t code;
    std::vector<std::uint8_t> bytes;
};

// A request that waits for its reply. Lives on the requester's stack between AddRequest and
// RemoveRequest.
struct PendingRequest {
    ReplySource source;
    std::uint8_t command;
    std::uint8_t sequence;
    std::optional<Reply> reply{};  // the inbox's mutex guards this and what follows
    std::uint64_t connection = 0;  // in which it was added
};

// Any thread.
class Inbox {
  public:
    using Deadline = std::chrono::steady_clock::time_point;

    // Keeps the newest `capacity` blocks of each child and packets of the DAQ.
    explicit Inbox(std::size_t capacity);

    // From now on keeps the reply to `request` for it. To be called before it is sent.
    void AddRequest(PendingRequest& request);
    void RemoveRequest(PendingRequest& request);

    // Waits for the reply. kTimeout, naming `what`, or the error that ended the link.
    Expected<Reply> WaitForReply(PendingRequest& request, Deadline deadline,
                                 const std::string& what);

    // False when no request waits for this reply.
    bool DeliverReply(Reply reply);

    // From now on keeps the blocks of `child`, whose sequence numbers begin at 0. False when it is
    // open already.
    bool OpenChild(ChildId child);

    void RemoveChild(ChildId child);
    void RemoveAllChildren();

    // False when the child is not open.
    bool DeliverBlock(ChildId child, Block block);
    void DeliverDaq(Block block);

    // Waits for the oldest block. Blocks that came before the link ended can still be received.
    Expected<Block> Receive(ChildId child, Deadline deadline);
    Expected<Block> ReceiveDaq(Deadline deadline);

    // Ends all present and future waits with `error`. Only the first call has an effect.
    void Fail(const Error& error);

    // After Fail: drops all children and packets, and allows new waits. Waits that Fail has ended
    // return its error even if they wake up only now.
    void Restart();

    // The error that Fail was called with, until Restart.
    [[nodiscard]] std::optional<Error> LinkError() const;

    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;

    // Fills in the counts of the DAQ's packets.
    void AddDaqCounts(ClientStatistics& statistics) const;

  private:
    struct Child {
        std::deque<Block> blocks;
        std::uint8_t expectedSequence = 0;
        ChildStatistics statistics;
    };

    // The queue of a child, null when it is not open; the DAQ's without a child.
    std::deque<Block>* FindQueue(std::optional<ChildId> child) VEXA_REQUIRES(mutex);
    Expected<Block> ReceiveFrom(std::optional<ChildId> child, Deadline deadline);

    const std::size_t capacity;
    mutable vexa::Mutex mutex;
    std::condition_variable_any changed;
    std::vector<PendingRequest*> requests VEXA_GUARDED_BY(mutex);
    std::map<ChildId, Child> children VEXA_GUARDED_BY(mutex);
    std::deque<Block> daqPackets VEXA_GUARDED_BY(mutex);
    ClientStatistics counts VEXA_GUARDED_BY(mutex);       // of the DAQ's packets
    std::uint64_t connection VEXA_GUARDED_BY(mutex) = 0;  // counts the calls of Restart
    std::optional<Error> linkError VEXA_GUARDED_BY(mutex);
    Error formerError VEXA_GUARDED_BY(mutex){};  // of the connection before this one
};

}  // namespace vexahost
