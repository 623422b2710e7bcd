#include "lib/Link.h"

#include <algorithm>
#include <utility>

#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"

namespace vexahost {

namespace {

using vexa::MutexLock;
using SteadyClock = std::chrono::steady_clock;

constexpr Milliseconds kSyncInterval{500};
constexpr Milliseconds kReconnectPause{100};  // between two attempts
constexpr Milliseconds kWaitSlice{50};        // how often a wait looks whether it was cancelled
constexpr Milliseconds kReasonPatience{500};  // for the reason of a lost link

Error ClosedHere() { return {ErrorKind::kLinkLost, "the link was closed by this side"}; }

Error NothingAccepted() { return {ErrorKind::kTimeout, "the unit accepted no bytes in time"}; }

}  // namespace

Link::Link(Inbox& inbox_, const ClientOptions& options_, TransportFactory factory_)
    : inbox(inbox_),
      options(options_),
      factory(std::move(factory_)),
      receiver(inbox, options, [this] { SendSyncAtOnce(); }) {}

Link::~Link() {
    EndConnection();
    receiver.Stop();  // its thread uses what is destroyed first
}

// The connection.

void Link::Start(std::unique_ptr<Transport> connected) {
    const MutexLock lock(mutex);
    transport = std::move(connected);
    receiver.Start(transport);
}

Expected<Done> Link::Connect(Deadline deadline) {
    EndConnection();  // there is none yet, but Use expects an ended one
    return Attempt(deadline, 0);
}

void Link::EndConnection() {
    inbox.Fail(ClosedHere());
    std::shared_ptr<Transport> ending;
    {
        const MutexLock lock(mutex);
        ending = transport;
    }
    if (ending) ending->Close();
    changed.notify_all();
}

void Link::Close() {
    {
        const MutexLock lock(mutex);
        ++closes;
    }
    EndConnection();
}

bool Link::IsClosedSince(std::uint64_t closesSeen) {
    const MutexLock lock(mutex);
    return closes != closesSeen;
}

void Link::WaitForChange(MutexLock& lock, Deadline deadline) {
    changed.wait_until(lock, std::min(deadline, SteadyClock::now() + kWaitSlice));
}

// Has the reconnect turn until its end.
class Link::ReconnectTurn {
  public:
    explicit ReconnectTurn(Link& link_) : link(link_) {}
    ~ReconnectTurn() {
        {
            const MutexLock lock(link.mutex);
            link.reconnecting = false;
        }
        link.changed.notify_all();
    }
    ReconnectTurn(const ReconnectTurn&) = delete;
    ReconnectTurn& operator=(const ReconnectTurn&) = delete;

  private:
    Link& link;
};

Expected<Done> Link::Reconnect(Deadline deadline, std::optional<std::uint64_t> lost) {
    if (!factory) {
        return Error{ErrorKind::kInvalidArgument,
                     "this client was given its connection and cannot make another"};
    }
    std::uint64_t closesSeen = 0;
    {
        MutexLock lock(mutex);
        closesSeen = closes;
        while (reconnecting) {
            if (closes != closesSeen) return ClosedHere();
            if (IsCancelled()) return Error{ErrorKind::kCancelled, "interrupted"};
            if (SteadyClock::now() >= deadline) {
                return Error{ErrorKind::kTimeout, "another thread is reconnecting"};
            }
            WaitForChange(lock, deadline);
        }
        if (lost && inbox.Connection() != *lost && !inbox.LinkError()) return Done{};
        reconnecting = true;
    }
    const ReconnectTurn turn(*this);
    auto done = AttemptUntil(deadline, closesSeen);
    if (!done) EndConnection();
    return done;
}

Expected<Done> Link::AttemptUntil(Deadline deadline, std::uint64_t closesSeen) {
    for (;;) {
        EndConnection();
        receiver.Stop();
        auto done = Attempt(deadline, closesSeen);
        if (done || done.error().kind == ErrorKind::kInvalidArgument) return done;
        const auto next = std::min(deadline, SteadyClock::now() + kReconnectPause);
        MutexLock lock(mutex);
        while (closes == closesSeen && SteadyClock::now() < next) WaitForChange(lock, next);
        if (closes != closesSeen) return ClosedHere();
        if (IsCancelled() || SteadyClock::now() >= deadline) return done;
    }
}

Expected<Done> Link::Attempt(Deadline deadline, std::uint64_t closesSeen) {
    auto connected =
        factory({deadline, [=, this] { return IsCancelled() || IsClosedSince(closesSeen); }});
    if (IsClosedSince(closesSeen)) return ClosedHere();
    if (!connected) return connected.error();
    if (auto used = Use(std::move(*connected), closesSeen); !used) return used;
    const auto reply = InitialSync(deadline);
    if (!reply) return reply.error();
    return Done{};
}

// The former connection has ended and its receiver is stopped.
Expected<Done> Link::Use(std::shared_ptr<Transport> connected, std::uint64_t closesSeen) {
    MutexLock lock(mutex);
    while (writing) WaitForChange(lock, Deadline::max());  // its link has ended
    if (closes != closesSeen) return ClosedHere();
    transport = std::move(connected);
    torn = false;
    inbox.Restart();
    receiver.Start(transport);
    return Done{};
}

// Packets.

// Has the write turn, once it is given a transport, until its end.
class Link::WriteTurn {
  public:
    explicit WriteTurn(Link& link_) : link(link_) {}
    ~WriteTurn() {
        if (!transport) return;
        {
            const MutexLock lock(link.mutex);
            link.writing = false;
        }
        link.changed.notify_all();
    }
    WriteTurn(const WriteTurn&) = delete;
    WriteTurn& operator=(const WriteTurn&) = delete;

    std::shared_ptr<Transport> transport;

  private:
    Link& link;
};

Expected<Done> Link::AwaitWriteTurn(WriteTurn& turn, Deadline deadline) {
    MutexLock lock(mutex);
    for (;;) {
        if (auto error = inbox.LinkError()) return *error;
        if (!writing) break;
        if (IsCancelled()) return Error{ErrorKind::kCancelled, "interrupted"};
        if (SteadyClock::now() >= deadline) return NothingAccepted();
        WaitForChange(lock, deadline);
    }
    writing = true;
    turn.transport = transport;
    return Done{};
}

Expected<Done> Link::WriteWhole(Transport& to, std::span<const std::uint8_t> packet,
                                Deadline deadline) {
    const auto sent = to.Write(packet, deadline);
    if (!sent) {
        // What the unit said before it left is a better reason, and the receiver may still read it.
        const auto end = std::min(deadline, SteadyClock::now() + kReasonPatience);
        return inbox.AwaitLinkError(end).value_or(sent.error());
    }
    if (*sent == packet.size()) return Done{};
    torn = torn || *sent > 0;
    return NothingAccepted();
}

Expected<Done> Link::Send(std::span<const std::uint8_t> packet, Deadline deadline) {
    if (options.tap) options.tap(Direction::kToUnit, packet);
    WriteTurn turn(*this);
    if (auto mine = AwaitWriteTurn(turn, deadline); !mine) return mine;
    if (torn) {
        const Packet sync = BuildInitialSync(inbox.TakeSequence());
        if (auto sent = WriteWhole(*turn.transport, sync.Bytes(), deadline); !sent) return sent;
        torn = false;
    }
    return WriteWhole(*turn.transport, packet, deadline);
}

// On the receiving thread: it must not wait for a unit that waits for this side to read.
void Link::SendSyncAtOnce() {
    WriteTurn turn(*this);
    const auto now = SteadyClock::now();
    if (!AwaitWriteTurn(turn, now)) return;
    const Packet sync = BuildInitialSync(inbox.TakeSequence());
    if (WriteWhole(*turn.transport, sync.Bytes(), now)) torn = false;
}

Expected<std::vector<std::uint8_t>> Link::InitialSync(Deadline deadline) {
    const auto begun = inbox.Begin(
        {ReplySource::kInitialSync, vexa::kInitialSyncCommand, "initial sync"}, deadline);
    const Registration registration(inbox, *begun);
    const Packet packet = BuildInitialSync(registration.Get().sequence);
    for (;;) {
        receiver.AwaitSyncReply();
        if (const auto sent = Send(packet.Bytes(), deadline); !sent) return sent.error();
        const auto next = std::min(deadline, SteadyClock::now() + kSyncInterval);
        const auto reply = inbox.WaitForReply(registration.Get(), next);
        if (reply) {
            inbox.ForgetLateRequests();
            return reply->bytes;
        }
        if (reply.error().kind != ErrorKind::kTimeout || SteadyClock::now() >= deadline) {
            receiver.EndSearch();
            return reply.error();
        }
    }
}

}  // namespace vexahost
