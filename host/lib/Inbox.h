// What this side knows of a conversation: which requests are under way, which children are open,
// and what came from the unit until somebody receives it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Mutex.h"
#include "vexahost/Block.h"
#include "vexahost/Expected.h"
#include "vexahost/Transport.h"
#include "vexahost/protocol/Commands.h"

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

// A request to the unit, from before it is sent until its reply is here.
struct Request {
    const ReplySource source;
    const std::uint8_t command;
    const std::string what;  // in words
    // The one that a controller command names; of one that closes and names none: the controller.
    std::optional<ChildId> child{};
    std::uint8_t sequence = 0;     // constant once begun
    ChildId controller = 0;        // of a controller command; constant once begun
    bool opensChild = false;       // the child was not open before; the inbox's mutex guards this
    bool isLate = false;           // and this: nobody waits any more
    std::optional<Reply> reply{};  // and this
    std::optional<Error> error{};  // and this: why there will be no reply
};
using RequestHandle = std::shared_ptr<Request>;

// Any thread. Waits end with the link, at their deadline, and when `isCancelled` returns true.
//
// The unit drops a controller command that comes while it executes another. So one command at a
// time has the turn, in the order of the calls of Begin, until its reply is here, also when nobody
// waits for that any more.
// A late reply still changes what is open. Opening the controller takes the turn from a late
// command, as the unit abandons it; a reply to an initial sync and a new connection do so as well.
class Inbox {
  public:
    // Keeps the newest `capacity` blocks of each child and packets of the DAQ.
    Inbox(std::size_t capacity, std::function<bool()> isCancelled);

    // Gives a request its sequence number and keeps its reply from now on. A controller command
    // first waits for its turn; then the children are changed as the command will do it. kNotOpen
    // for a command while the controller is not open.
    Expected<RequestHandle> Begin(Request request, Deadline deadline);

    // Waits for the reply. kTimeout, kCancelled, or the error that ended the link.
    Expected<Reply> WaitForReply(Request& request, Deadline deadline);

    // The request was not sent, or its reply does not matter any more.
    void Withdraw(Request& request);

    // A sequence number for a packet without a reply: none of a request under way.
    std::uint8_t TakeSequence();
    [[nodiscard]] std::uint8_t NextSequence() const;

    // False when no request waits for this reply.
    bool DeliverReply(Reply reply);

    // The unit has answered an initial sync: what is still late gets no reply any more.
    void ForgetLateRequests();

    // True for the ids under which the controller answers: its own, or 0 when its entry is gone.
    [[nodiscard]] bool IsController(ChildId child) const;
    [[nodiscard]] bool IsOpen(ChildId child) const;

    // False when the child is not open.
    bool DeliverBlock(ChildId child, Block block);
    void DeliverDaq(Block block);

    // Notes the DAQ's number in a reply that does not become a block.
    void NoteDaqSequence(std::uint8_t sequence);

    // Waits for the oldest block of the children and, with `withDaq`, of the DAQ. Blocks that came
    // before the link ended can still be received. kNotOpen when one of the children is not open.
    Expected<Received> Receive(std::span<const ChildId> children, bool withDaq, Deadline deadline);

    // Ends all present and future waits with `error`. Only the first call has an effect.
    void Fail(const Error& error);

    // After Fail: drops all children, requests and packets, and allows new waits. Waits that Fail
    // has ended return its error even if they wake up only now.
    void Restart();

    // Counts the calls of Restart.
    [[nodiscard]] std::uint64_t Connection() const;

    // The error that Fail was called with, until Restart.
    [[nodiscard]] std::optional<Error> LinkError() const;

    // Waits for that error. Nothing when it did not come.
    std::optional<Error> AwaitLinkError(Deadline deadline);

    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;

    // Fills in the counts of the DAQ's packets.
    void AddDaqCounts(ClientStatistics& statistics) const;

  private:
    struct Child {
        std::deque<Block> blocks;
        std::uint8_t expectedSequence = 0;
        ChildStatistics statistics;
    };

    // Waits for a change, until `deadline` or, if calls can be cancelled, a short time.
    void WaitForChange(vexa::MutexLock& lock, Deadline deadline) VEXA_REQUIRES(mutex);
    // The error with which a wait ends now; nothing to go on.
    [[nodiscard]] std::optional<Error> WaitEnds(Deadline deadline, const std::string& what) const;
    std::optional<Error> AwaitTurn(vexa::MutexLock& lock, const Request& request, Deadline deadline)
        VEXA_REQUIRES(mutex);
    std::uint8_t FreeSequence() VEXA_REQUIRES(mutex);
    void CloseAll() VEXA_REQUIRES(mutex);
    void ForgetDaqPackets() VEXA_REQUIRES(mutex);
    // Change what is open: before a controller command is sent, and by its reply.
    void ApplyBegin(Request& request) VEXA_REQUIRES(mutex);
    void ApplyReply(const Request& request, const Reply& reply) VEXA_REQUIRES(mutex);
    void CountDaqSequence(std::uint8_t sequence) VEXA_REQUIRES(mutex);

    const std::size_t capacity;
    const std::function<bool()> isCancelled;
    mutable vexa::Mutex mutex;
    std::condition_variable_any changed;
    std::vector<RequestHandle> requests VEXA_GUARDED_BY(mutex);  // without a reply
    std::vector<const Request*> waiting VEXA_GUARDED_BY(mutex);  // for their turn, in order
    std::uint8_t nextSequence VEXA_GUARDED_BY(mutex) = 1;
    ChildId controllerId VEXA_GUARDED_BY(mutex) = 0;
    bool controllerOpen VEXA_GUARDED_BY(mutex) = false;
    std::map<ChildId, Child> children VEXA_GUARDED_BY(mutex);
    std::deque<Block> daqPackets VEXA_GUARDED_BY(mutex);
    std::optional<std::uint8_t> expectedDaqSequence VEXA_GUARDED_BY(mutex);
    ClientStatistics counts VEXA_GUARDED_BY(mutex);       // of the DAQ's packets
    std::uint64_t connection VEXA_GUARDED_BY(mutex) = 0;  // counts the calls of Restart
    std::optional<Error> linkError VEXA_GUARDED_BY(mutex);
    Error formerError VEXA_GUARDED_BY(mutex){};  // of the connection before this one
};

// A request in the inbox. Unless it is kept there, as it may still be answered, it is withdrawn.
class Registration {
  public:
    Registration(Inbox& inbox_, RequestHandle request_)
        : inbox(inbox_), request(std::move(request_)) {}
    ~Registration() {
        if (!kept) inbox.Withdraw(*request);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    void Keep() { kept = true; }
    [[nodiscard]] Request& Get() const { return *request; }

  private:
    Inbox& inbox;
    const RequestHandle request;
    bool kept = false;
};

}  // namespace vexahost
