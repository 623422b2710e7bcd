#include "vexahost/Client.h"

#include <algorithm>
#include <condition_variable>
#include <string>
#include <thread>
#include <utility>

#include "foundation/Mutex.h"
#include "lib/Inbox.h"
#include "lib/Receiver.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

using SteadyClock = std::chrono::steady_clock;
using vexa::ControllerCommand;
using vexa::Mutex;
using vexa::MutexLock;

constexpr Milliseconds kSyncInterval{500};
constexpr Milliseconds kReconnectPause{100};  // between two attempts
constexpr Milliseconds kWaitSlice{50};        // how often a wait looks whether it was cancelled
constexpr Milliseconds kReasonPatience{500};  // for the reason of a lost link

Error TooLong(const std::string& what, std::size_t most) {
    return {ErrorKind::kInvalidArgument,
            what + " has more than " + std::to_string(most) + " bytes"};
}

Error ClosedHere() { return {ErrorKind::kLinkLost, "the link was closed by this side"}; }

Error NothingAccepted() { return {ErrorKind::kTimeout, "the unit accepted no bytes in time"}; }

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

}  // namespace

class Client::Implementation {
  public:
    Implementation(TransportFactory factory_, ClientOptions options_)
        : options(std::move(options_)),
          factory(std::move(factory_)),
          inbox(options.queueCapacity, options.isCancelled),
          receiver(inbox, options, [this] { SendSyncAtOnce(); }) {}
    ~Implementation() {
        EndConnection();
        receiver.Stop();  // its thread uses what is destroyed first
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    void Start(std::unique_ptr<Transport> connected);
    Expected<Done> Connect(Deadline deadline);
    Expected<Done> Reconnect(Deadline deadline, std::optional<std::uint64_t> lost);
    void Close();

    Expected<std::vector<std::uint8_t>> InitialSync(Deadline deadline);
    Expected<Done> SendPacket(std::span<const std::uint8_t> packet, Deadline deadline);

    // Sends a controller command, with `arguments` after the command byte, and waits for the reply.
    // Returns the reply's result byte. `child` is the one that the command names: nothing when it
    // names none, or closes the controller.
    Expected<std::uint8_t> Command(std::string what, ControllerCommand command,
                                   std::span<const std::uint8_t> arguments, Milliseconds timeout,
                                   std::optional<ChildId> child = {});
    Expected<Done> SendMultiplexerCommand(std::uint8_t command,
                                          std::span<const std::uint8_t> payload, Deadline deadline);

    const ClientOptions options;
    const TransportFactory factory;  // null when the connection was given
    Inbox inbox;
    Receiver receiver;

  private:
    // The right to write, which one thread at a time has, so that packets stay whole.
    class WriteTurn {
      public:
        explicit WriteTurn(Implementation& owner_) : owner(owner_) {}
        ~WriteTurn() {
            if (link) owner.EndWriting();
        }
        WriteTurn(const WriteTurn&) = delete;
        WriteTurn& operator=(const WriteTurn&) = delete;

        std::shared_ptr<Transport> link;  // null: without the turn

      private:
        Implementation& owner;
    };
    // The right to reconnect, which one thread at a time has: only it starts and stops the
    // receiver.
    class ReconnectTurn;

    Expected<Done> AwaitWriteTurn(WriteTurn& turn, Deadline deadline);
    void EndWriting();
    Expected<Done> WriteWhole(Transport& link, std::span<const std::uint8_t> packet,
                              Deadline deadline);
    void SendSyncAtOnce();

    Expected<Done> AttemptUntil(Deadline deadline, std::uint64_t closesSeen);
    Expected<Done> Attempt(Deadline deadline, std::uint64_t closesSeen);
    Expected<Done> Use(std::shared_ptr<Transport> connected, std::uint64_t closesSeen);
    bool IsClosedSince(std::uint64_t closesSeen);
    // Waits for a change of the link's state, until `deadline` or a short time.
    void WaitForLink(MutexLock& lock, Deadline deadline) VEXA_REQUIRES(linkMutex);
    [[nodiscard]] bool IsCancelled() const { return options.isCancelled && options.isCancelled(); }
    void EndConnection();

    Mutex linkMutex;
    std::condition_variable_any linkChanged;
    std::shared_ptr<Transport> transport VEXA_GUARDED_BY(linkMutex);  // null before the first
    std::uint64_t closes VEXA_GUARDED_BY(linkMutex) = 0;              // calls of Close
    bool reconnecting VEXA_GUARDED_BY(linkMutex) = false;
    bool writing VEXA_GUARDED_BY(linkMutex) = false;
    // A packet was sent in part. The unit drops it at the next initial sync, which therefore goes
    // first. Only the thread that has the turn to write touches this.
    bool torn = false;
};

// The connection.

void Client::Implementation::Start(std::unique_ptr<Transport> connected) {
    const MutexLock lock(linkMutex);
    transport = std::move(connected);
    receiver.Start(transport);
}

Expected<Done> Client::Implementation::Connect(Deadline deadline) {
    EndConnection();  // there is none yet, but Use expects an ended one
    return Attempt(deadline, 0);
}

void Client::Implementation::EndConnection() {
    inbox.Fail(ClosedHere());
    std::shared_ptr<Transport> ending;
    {
        const MutexLock lock(linkMutex);
        ending = transport;
    }
    if (ending) ending->Close();
    linkChanged.notify_all();
}

void Client::Implementation::Close() {
    {
        const MutexLock lock(linkMutex);
        ++closes;
    }
    EndConnection();
}

bool Client::Implementation::IsClosedSince(std::uint64_t closesSeen) {
    const MutexLock lock(linkMutex);
    return closes != closesSeen;
}

void Client::Implementation::WaitForLink(MutexLock& lock, Deadline deadline) {
    linkChanged.wait_until(lock, std::min(deadline, SteadyClock::now() + kWaitSlice));
}

class Client::Implementation::ReconnectTurn {
  public:
    explicit ReconnectTurn(Implementation& owner_) : owner(owner_) {}
    ~ReconnectTurn() {
        {
            const MutexLock lock(owner.linkMutex);
            owner.reconnecting = false;
        }
        owner.linkChanged.notify_all();
    }
    ReconnectTurn(const ReconnectTurn&) = delete;
    ReconnectTurn& operator=(const ReconnectTurn&) = delete;

  private:
    Implementation& owner;
};

Expected<Done> Client::Implementation::Reconnect(Deadline deadline,
                                                 std::optional<std::uint64_t> lost) {
    if (!factory) {
        return Error{ErrorKind::kInvalidArgument,
                     "this client was given its connection and cannot make another"};
    }
    std::uint64_t closesSeen = 0;
    {
        MutexLock lock(linkMutex);
        closesSeen = closes;
        while (reconnecting) {
            if (closes != closesSeen) return ClosedHere();
            if (IsCancelled()) return Error{ErrorKind::kCancelled, "interrupted"};
            if (SteadyClock::now() >= deadline) {
                return Error{ErrorKind::kTimeout, "another thread is reconnecting"};
            }
            WaitForLink(lock, deadline);
        }
        if (lost && inbox.Connection() != *lost && !inbox.LinkError()) return Done{};
        reconnecting = true;
    }
    const ReconnectTurn turn(*this);
    auto done = AttemptUntil(deadline, closesSeen);
    if (!done) EndConnection();
    return done;
}

Expected<Done> Client::Implementation::AttemptUntil(Deadline deadline, std::uint64_t closesSeen) {
    for (;;) {
        EndConnection();
        receiver.Stop();
        auto done = Attempt(deadline, closesSeen);
        if (done || done.error().kind == ErrorKind::kInvalidArgument) return done;
        const auto next = std::min(deadline, SteadyClock::now() + kReconnectPause);
        MutexLock lock(linkMutex);
        while (closes == closesSeen && SteadyClock::now() < next) WaitForLink(lock, next);
        if (closes != closesSeen) return ClosedHere();
        if (IsCancelled() || SteadyClock::now() >= deadline) return done;
    }
}

Expected<Done> Client::Implementation::Attempt(Deadline deadline, std::uint64_t closesSeen) {
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
Expected<Done> Client::Implementation::Use(std::shared_ptr<Transport> connected,
                                           std::uint64_t closesSeen) {
    MutexLock lock(linkMutex);
    while (writing) WaitForLink(lock, Deadline::max());  // its link has ended
    if (closes != closesSeen) return ClosedHere();
    transport = std::move(connected);
    torn = false;
    inbox.Restart();
    receiver.Start(transport);
    return Done{};
}

// Packets.

Expected<Done> Client::Implementation::AwaitWriteTurn(WriteTurn& turn, Deadline deadline) {
    MutexLock lock(linkMutex);
    for (;;) {
        if (auto error = inbox.LinkError()) return *error;
        if (!writing) break;
        if (IsCancelled()) return Error{ErrorKind::kCancelled, "interrupted"};
        if (SteadyClock::now() >= deadline) return NothingAccepted();
        WaitForLink(lock, deadline);
    }
    writing = true;
    turn.link = transport;
    return Done{};
}

void Client::Implementation::EndWriting() {
    {
        const MutexLock lock(linkMutex);
        writing = false;
    }
    linkChanged.notify_all();
}

Expected<Done> Client::Implementation::WriteWhole(Transport& link,
                                                  std::span<const std::uint8_t> packet,
                                                  Deadline deadline) {
    const auto sent = link.Write(packet, deadline);
    if (!sent) {
        // What the unit said before it left is a better reason, and the receiver may still read it.
        const auto end = SteadyClock::now() + kReasonPatience;
        while (!inbox.LinkError() && SteadyClock::now() < end) {
            std::this_thread::sleep_for(kReasonPatience / 100);
        }
        return inbox.LinkError().value_or(sent.error());
    }
    if (*sent == packet.size()) return Done{};
    torn = torn || *sent > 0;
    return NothingAccepted();
}

Expected<Done> Client::Implementation::SendPacket(std::span<const std::uint8_t> packet,
                                                  Deadline deadline) {
    if (options.tap) options.tap(Direction::kToUnit, packet);
    WriteTurn turn(*this);
    if (auto mine = AwaitWriteTurn(turn, deadline); !mine) return mine;
    if (torn) {
        const Packet sync = BuildInitialSync(inbox.TakeSequence());
        if (auto sent = WriteWhole(*turn.link, sync.Bytes(), deadline); !sent) return sent;
        torn = false;
    }
    return WriteWhole(*turn.link, packet, deadline);
}

// On the receiving thread: it must not wait for a unit that waits for this side to read.
void Client::Implementation::SendSyncAtOnce() {
    WriteTurn turn(*this);
    const auto now = SteadyClock::now();
    if (!AwaitWriteTurn(turn, now)) return;
    const Packet sync = BuildInitialSync(inbox.TakeSequence());
    if (WriteWhole(*turn.link, sync.Bytes(), now)) torn = false;
}

// Requests.

Expected<std::vector<std::uint8_t>> Client::Implementation::InitialSync(Deadline deadline) {
    const auto begun = inbox.Begin(
        {ReplySource::kInitialSync, vexa::kInitialSyncCommand, "initial sync"}, deadline);
    const Registration registration(inbox, *begun);
    const Packet packet = BuildInitialSync(registration.Get().sequence);
    for (;;) {
        receiver.AwaitSyncReply();
        if (const auto sent = SendPacket(packet.Bytes(), deadline); !sent) return sent.error();
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

Expected<std::uint8_t> Client::Implementation::Command(std::string what, ControllerCommand command,
                                                       std::span<const std::uint8_t> arguments,
                                                       Milliseconds timeout,
                                                       std::optional<ChildId> child) {
    const Deadline deadline = DeadlineAfter(timeout);
    const auto begun = inbox.Begin(
        {ReplySource::kController, static_cast<std::uint8_t>(command), std::move(what), child},
        deadline);
    if (!begun) return begun.error();
    Registration registration(inbox, *begun);
    Request& request = registration.Get();
    std::vector<std::uint8_t> closing;
    if (command == ControllerCommand::kCloseChild) {
        closing = CloseArguments(*request.child);
        arguments = closing;
    }
    const auto packet =
        BuildControllerCommand(request.controller, request.sequence, command, arguments);
    if (const auto sent = SendPacket(packet.Bytes(), deadline); !sent) return sent.error();
    registration.Keep();
    const auto reply = inbox.WaitForReply(request, deadline);
    if (!reply) return reply.error();
    if (!reply->isError) return reply->code;
    Error refused = RefusedError(request.what, reply->command, reply->code);
    const bool isOpen = command == ControllerCommand::kOpenChild;
    if (isOpen && reply->code == static_cast<std::uint8_t>(vexa::ReplyError::kChildFailed)) {
        refused.message +=
            "; the unit has no such device (capitals matter) or none attached, its type cannot be "
            "opened, or the id is in use";
    }
    return refused;
}

Expected<Done> Client::Implementation::SendMultiplexerCommand(std::uint8_t command,
                                                              std::span<const std::uint8_t> payload,
                                                              Deadline deadline) {
    if (payload.size() > kMaxCommandPayload) return TooLong("the payload", kMaxCommandPayload);
    const auto begun = inbox.Begin(
        {ReplySource::kMultiplexer, command, "multiplexer command " + std::to_string(command)},
        deadline);
    Registration registration(inbox, *begun);
    Request& request = registration.Get();
    const auto packet = BuildMultiplexerCommand(request.sequence, command, payload);
    if (auto sent = SendPacket(packet->Bytes(), deadline); !sent) return sent;
    registration.Keep();
    const auto reply = inbox.WaitForReply(request, deadline);
    if (!reply) return reply.error();
    if (reply->isError) return RefusedError(request.what, reply->command, reply->code);
    return Done{};
}

// The interface.

namespace {

// A result without the reply's result byte.
Expected<Done> WithoutResult(const Expected<std::uint8_t>& result) {
    if (!result) return result.error();
    return Done{};
}

Expected<Block> BlockOf(Expected<Received> received) {
    if (!received) return received.error();
    return std::move(received->block);
}

}  // namespace

Client::Client(TransportFactory factory, ClientOptions options)
    : implementation(std::make_unique<Implementation>(std::move(factory), std::move(options))) {}

Client::Client(std::unique_ptr<Transport> connected, ClientOptions options)
    : Client(TransportFactory{}, std::move(options)) {
    implementation->Start(std::move(connected));
}

Client::~Client() = default;

Expected<std::unique_ptr<Client>> Client::Connect(TransportFactory factory, ClientOptions options,
                                                  Milliseconds timeout) {
    std::unique_ptr<Client> client(new Client(std::move(factory), std::move(options)));
    const auto connected = client->implementation->Connect(DeadlineAfter(timeout));
    if (!connected) return connected.error();
    return client;
}

Expected<Done> Client::Reconnect(Milliseconds timeout, std::optional<std::uint64_t> lost) {
    return implementation->Reconnect(DeadlineAfter(timeout), lost);
}

std::uint64_t Client::Connection() const { return implementation->inbox.Connection(); }

void Client::Close() { implementation->Close(); }

Expected<std::vector<std::uint8_t>> Client::InitialSync(Milliseconds timeout) {
    return implementation->InitialSync(DeadlineAfter(timeout));
}

Expected<Done> Client::OpenController(ChildId controller, bool withDaq, Milliseconds timeout) {
    return WithoutResult(
        implementation->Command("open controller", ControllerCommand::kReopenController,
                                ReopenArguments(controller, withDaq), timeout, controller));
}

Expected<DaqApplication> Client::QueryDaqApplication(Milliseconds timeout) {
    const auto result = implementation->Command(
        "query DAQ application", ControllerCommand::kQueryDaqApplication, {}, timeout);
    if (!result) return result.error();
    return *result == 1 ? DaqApplication::kHoldsHardware : DaqApplication::kHoldsNothing;
}

Expected<Done> Client::TakeDaqOver(Milliseconds timeout) {
    return WithoutResult(
        implementation->Command("take DAQ over", ControllerCommand::kTakeDaqOver, {}, timeout));
}

Expected<Done> Client::OpenDevice(std::string_view name, ChildId child, Milliseconds timeout) {
    if (name.size() > kMaxDeviceName) return TooLong("the device name", kMaxDeviceName);
    if (name == vexa::kControllerName) {
        return Error{ErrorKind::kInvalidArgument,
                     "a device of this name would open the controller anew"};
    }
    return WithoutResult(implementation->Command("open " + std::string(name),
                                                 ControllerCommand::kOpenChild,
                                                 OpenArguments(child, name), timeout, child));
}

Expected<Done> Client::CloseDevice(ChildId child, Milliseconds timeout) {
    return WithoutResult(implementation->Command("close child " + std::to_string(child),
                                                 ControllerCommand::kCloseChild, {}, timeout,
                                                 child));
}

Expected<Done> Client::CloseController(Milliseconds timeout) {
    return WithoutResult(
        implementation->Command("close controller", ControllerCommand::kCloseChild, {}, timeout));
}

Expected<Done> Client::Send(ChildId child, std::span<const std::uint8_t> bytes,
                            Milliseconds timeout) {
    if (bytes.size() > kMaxRequestToChild) return TooLong("the request", kMaxRequestToChild);
    if (vexa::ReopensController(bytes)) {
        return Error{ErrorKind::kInvalidArgument,
                     "the unit would execute these bytes as the command to open the controller"};
    }
    Inbox& inbox = implementation->inbox;
    if (auto error = inbox.LinkError()) return *error;
    if (!inbox.IsOpen(child)) {
        return Error{ErrorKind::kNotOpen, "no child with this id is open"};
    }
    return SendRaw(BuildTunnel(child, inbox.TakeSequence(), bytes)->Bytes(), timeout);
}

Expected<Done> Client::SendMultiplexerCommand(std::uint8_t command,
                                              std::span<const std::uint8_t> payload,
                                              Milliseconds timeout) {
    return implementation->SendMultiplexerCommand(command, payload, DeadlineAfter(timeout));
}

Expected<Done> Client::SendRaw(std::span<const std::uint8_t> bytes, Milliseconds timeout) {
    return implementation->SendPacket(bytes, DeadlineAfter(timeout));
}

Expected<Block> Client::Receive(ChildId child, Milliseconds timeout) {
    return BlockOf(implementation->inbox.Receive({&child, 1}, false, DeadlineAfter(timeout)));
}

Expected<Block> Client::ReceiveDaq(Milliseconds timeout) {
    return BlockOf(implementation->inbox.Receive({}, true, DeadlineAfter(timeout)));
}

Expected<Received> Client::ReceiveAny(std::span<const ChildId> children, bool withDaq,
                                      Milliseconds timeout) {
    return implementation->inbox.Receive(children, withDaq, DeadlineAfter(timeout));
}

std::uint8_t Client::NextSequence() const { return implementation->inbox.NextSequence(); }

ClientStatistics Client::Statistics() const { return implementation->receiver.Statistics(); }

std::optional<ChildStatistics> Client::StatisticsOf(ChildId child) const {
    return implementation->inbox.StatisticsOf(child);
}

std::optional<Error> Client::LinkError() const { return implementation->inbox.LinkError(); }

}  // namespace vexahost
