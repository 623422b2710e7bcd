#include "vexahost/Client.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <string>
#include <utility>

#include "foundation/Mutex.h"
#include "lib/Inbox.h"
#include "lib/Receiver.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost {

namespace {

using SteadyClock = std::chrono::steady_clock;
using vexa::ControllerCommand;
using vexa::Mutex;
using vexa::MutexLock;

constexpr Milliseconds kWriteTimeout{3000};
constexpr Milliseconds kSyncRepeat{500};
constexpr Milliseconds kReconnectPause{100};  // between two attempts

Milliseconds Until(SteadyClock::time_point deadline) {
    return std::max(std::chrono::ceil<Milliseconds>(deadline - SteadyClock::now()),
                    Milliseconds{0});
}

Error TooLong(const std::string& what, std::size_t most) {
    return {ErrorKind::kInvalidArgument,
            what + " has more than " + std::to_string(most) + " bytes"};
}

Error ClosedHere() { return {ErrorKind::kLinkLost, "the link was closed by this side"}; }

// Keeps a request in the inbox while it waits for its reply.
class Registration {
  public:
    Registration(Inbox& inbox_, PendingRequest& request_) : inbox(inbox_), request(request_) {
        inbox.AddRequest(request);
    }
    ~Registration() { inbox.RemoveRequest(request); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

  private:
    Inbox& inbox;
    PendingRequest& request;
};

}  // namespace

class Client::Implementation {
  public:
    Implementation(TransportFactory factory_, ClientOptions options_)
        : options(std::move(options_)),
          factory(std::move(factory_)),
          inbox(options.queueCapacity),
          receiver(inbox, options, controllerId) {}
    ~Implementation() { EndConnection(); }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    void Start(std::unique_ptr<Transport> connected);
    Expected<Done> Connect(SteadyClock::time_point deadline);
    Expected<Done> Reconnect(SteadyClock::time_point deadline);
    void Close();

    Expected<std::vector<std::uint8_t>> InitialSync(SteadyClock::time_point deadline);
    Expected<Done> SendPacket(std::span<const std::uint8_t> packet);

    // Sends a controller command, with `arguments` after the command byte, and waits for the reply.
    // Returns the reply's result byte. `beforeSending` is called when it is this command's turn.
    Expected<std::uint8_t> Request(const std::string& what, ControllerCommand command,
                                   std::span<const std::uint8_t> arguments, Milliseconds timeout,
                                   const std::function<void()>& beforeSending = {});

    const ClientOptions options;
    const TransportFactory factory;  // null when the connection was given
    std::atomic<std::uint8_t> nextSequence{1};
    std::atomic<ChildId> controllerId{0};
    Inbox inbox;
    Receiver receiver;

  private:
    Expected<Done> AttemptUntil(SteadyClock::time_point deadline, std::uint64_t closesSeen);
    Expected<Done> Attempt(SteadyClock::time_point deadline, std::uint64_t closesSeen);
    Expected<Done> Use(std::shared_ptr<Transport> connected, std::uint64_t closesSeen);
    std::shared_ptr<Transport> CurrentTransport();
    void EndConnection();

    Mutex writeMutex;  // held while one packet is written, so that packets stay whole

    Mutex linkMutex;  // after writeMutex
    std::condition_variable_any linkChanged;
    std::shared_ptr<Transport> transport VEXA_GUARDED_BY(linkMutex);  // null before the first
    std::uint64_t closes VEXA_GUARDED_BY(linkMutex) = 0;              // calls of Close
    // One thread reconnects; until it is done, only it starts and stops the receiver.
    bool reconnecting VEXA_GUARDED_BY(linkMutex) = false;

    Mutex controllerMutex;
    std::condition_variable_any controllerFree;
    bool controllerBusy VEXA_GUARDED_BY(controllerMutex) = false;  // a command is under way
};

// The connection.

void Client::Implementation::Start(std::unique_ptr<Transport> connected) {
    const MutexLock lock(linkMutex);
    transport = std::move(connected);
    receiver.Start(transport);
}

Expected<Done> Client::Implementation::Connect(SteadyClock::time_point deadline) {
    EndConnection();  // there is none yet, but Use expects an ended one
    return Attempt(deadline, 0);
}

std::shared_ptr<Transport> Client::Implementation::CurrentTransport() {
    const MutexLock lock(linkMutex);
    return transport;
}

void Client::Implementation::EndConnection() {
    inbox.Fail(ClosedHere());
    if (const auto ending = CurrentTransport()) ending->Close();
}

void Client::Implementation::Close() {
    {
        const MutexLock lock(linkMutex);
        ++closes;
    }
    linkChanged.notify_all();
    EndConnection();
}

Expected<Done> Client::Implementation::Reconnect(SteadyClock::time_point deadline) {
    if (!factory) {
        return Error{ErrorKind::kInvalidArgument,
                     "this client was given its connection and cannot make another"};
    }
    std::uint64_t closesSeen = 0;
    {
        MutexLock lock(linkMutex);
        while (reconnecting) {
            if (SteadyClock::now() >= deadline) {
                return Error{ErrorKind::kTimeout, "another thread is reconnecting"};
            }
            linkChanged.wait_until(lock, deadline);
        }
        reconnecting = true;
        closesSeen = closes;
    }
    auto done = AttemptUntil(deadline, closesSeen);
    if (!done) EndConnection();
    {
        const MutexLock lock(linkMutex);
        reconnecting = false;
    }
    linkChanged.notify_all();
    return done;
}

Expected<Done> Client::Implementation::AttemptUntil(SteadyClock::time_point deadline,
                                                    std::uint64_t closesSeen) {
    for (;;) {
        EndConnection();
        receiver.Stop();
        auto done = Attempt(deadline, closesSeen);
        if (done || done.error().kind == ErrorKind::kInvalidArgument) return done;
        const auto next = SteadyClock::now() + std::min(kReconnectPause, Until(deadline));
        MutexLock lock(linkMutex);
        while (closes == closesSeen && SteadyClock::now() < next) {
            linkChanged.wait_until(lock, next);
        }
        if (closes != closesSeen) return ClosedHere();
        if (SteadyClock::now() >= deadline) return done;
    }
}

Expected<Done> Client::Implementation::Attempt(SteadyClock::time_point deadline,
                                               std::uint64_t closesSeen) {
    auto connected = factory();
    if (!connected) return connected.error();
    if (auto used = Use(std::move(*connected), closesSeen); !used) return used;
    const auto reply = InitialSync(deadline);
    if (!reply) return reply.error();
    return Done{};
}

// The former connection has ended and its receiver is stopped.
Expected<Done> Client::Implementation::Use(std::shared_ptr<Transport> connected,
                                           std::uint64_t closesSeen) {
    const MutexLock writeLock(writeMutex);
    const MutexLock lock(linkMutex);
    if (closes != closesSeen) return ClosedHere();
    transport = std::move(connected);
    controllerId = 0;
    inbox.Restart();
    receiver.Start(transport);
    return Done{};
}

// Requests.

Expected<Done> Client::Implementation::SendPacket(std::span<const std::uint8_t> packet) {
    const MutexLock lock(writeMutex);
    if (auto error = inbox.LinkError()) return *error;
    if (options.tap) options.tap(Direction::kToUnit, packet);
    return CurrentTransport()->WriteAll(packet, kWriteTimeout);
}

Expected<std::vector<std::uint8_t>> Client::Implementation::InitialSync(
    SteadyClock::time_point deadline) {
    const std::uint8_t sequence = nextSequence++;
    const Packet packet = BuildInitialSync(sequence);
    PendingRequest request{ReplySource::kInitialSync, vexa::kInitialSyncCommand, sequence};
    const Registration registration(inbox, request);
    for (;;) {
        receiver.AwaitSyncReply();
        if (const auto sent = SendPacket(packet.Bytes()); !sent) return sent.error();
        const auto next = std::min(deadline, SteadyClock::now() + kSyncRepeat);
        const auto reply = inbox.WaitForReply(request, next, "initial sync");
        if (reply) return reply->bytes;
        if (reply.error().kind != ErrorKind::kTimeout || SteadyClock::now() >= deadline) {
            return reply.error();
        }
    }
}

Expected<std::uint8_t> Client::Implementation::Request(const std::string& what,
                                                       ControllerCommand command,
                                                       std::span<const std::uint8_t> arguments,
                                                       Milliseconds timeout,
                                                       const std::function<void()>& beforeSending) {
    const auto deadline = SteadyClock::now() + timeout;
    {
        MutexLock lock(controllerMutex);
        while (controllerBusy) {
            if (SteadyClock::now() >= deadline) {
                return Error{ErrorKind::kTimeout, "the controller was busy too long for: " + what};
            }
            controllerFree.wait_until(lock, deadline);
        }
        controllerBusy = true;
    }
    const auto answer = [&]() -> Expected<Reply> {
        if (beforeSending) beforeSending();
        const std::uint8_t sequence = nextSequence++;
        const auto packet = BuildControllerCommand(controllerId, sequence, command, arguments);
        PendingRequest request{ReplySource::kController, static_cast<std::uint8_t>(command),
                               sequence};
        const Registration registration(inbox, request);
        if (const auto sent = SendPacket(packet.Bytes()); !sent) return sent.error();
        return inbox.WaitForReply(request, deadline, what);
    }();
    {
        const MutexLock lock(controllerMutex);
        controllerBusy = false;
    }
    controllerFree.notify_one();

    if (!answer) return answer.error();
    if (answer->isError) return RefusedError(what, answer->command, answer->code);
    return answer->code;
}

// The interface.

namespace {

// A result without the reply's result byte.
Expected<Done> WithoutResult(const Expected<std::uint8_t>& result) {
    if (!result) return result.error();
    return Done{};
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
    const auto connected = client->implementation->Connect(SteadyClock::now() + timeout);
    if (!connected) return connected.error();
    return client;
}

Expected<Done> Client::Reconnect(Milliseconds timeout) {
    return implementation->Reconnect(SteadyClock::now() + timeout);
}

void Client::Close() { implementation->Close(); }

Expected<std::vector<std::uint8_t>> Client::InitialSync(Milliseconds timeout) {
    return implementation->InitialSync(SteadyClock::now() + timeout);
}

Expected<Done> Client::OpenController(ChildId controller, bool withDaq, Milliseconds timeout) {
    return WithoutResult(
        implementation->Request("open controller", ControllerCommand::kReopenController,
                                ReopenArguments(controller, withDaq), timeout, [&] {
                                    implementation->inbox.RemoveAllChildren();
                                    implementation->controllerId = controller;
                                }));
}

Expected<bool> Client::QueryDaqApplication(Milliseconds timeout) {
    const auto result = implementation->Request(
        "query DAQ application", ControllerCommand::kQueryDaqApplication, {}, timeout);
    if (!result) return result.error();
    return *result == 1;
}

Expected<Done> Client::TakeDaqOver(Milliseconds timeout) {
    return WithoutResult(
        implementation->Request("take DAQ over", ControllerCommand::kTakeDaqOver, {}, timeout));
}

Expected<Done> Client::OpenDevice(std::string_view name, ChildId child, Milliseconds timeout) {
    if (name.size() > kMaxDeviceName) return TooLong("the device name", kMaxDeviceName);
    // A device may send before the reply is here, so its blocks are kept from now on. The
    // controller's own id is refused by the unit, whose reply comes under that id.
    Inbox& inbox = implementation->inbox;
    const bool isNew = child != implementation->controllerId && inbox.OpenChild(child);
    const auto done =
        implementation->Request("open " + std::string(name), ControllerCommand::kOpenChild,
                                OpenArguments(child, name), timeout);
    if (!done && isNew) inbox.RemoveChild(child);
    return WithoutResult(done);
}

Expected<Done> Client::CloseDevice(ChildId child, Milliseconds timeout) {
    const auto done =
        implementation->Request("close child " + std::to_string(child),
                                ControllerCommand::kCloseChild, CloseArguments(child), timeout);
    if (done) implementation->inbox.RemoveChild(child);
    return WithoutResult(done);
}

Expected<Done> Client::CloseController(Milliseconds timeout) {
    const auto done =
        implementation->Request("close controller", ControllerCommand::kCloseChild,
                                CloseArguments(implementation->controllerId), timeout);
    if (done) implementation->inbox.RemoveAllChildren();
    return WithoutResult(done);
}

Expected<Done> Client::Send(ChildId child, std::span<const std::uint8_t> bytes) {
    if (bytes.size() > kMaxRequestToChild) return TooLong("the request", kMaxRequestToChild);
    if (vexa::ReopensController(bytes)) {
        return Error{ErrorKind::kInvalidArgument,
                     "the unit would execute these bytes as the command to open the controller"};
    }
    return SendRaw(BuildTunnel(child, implementation->nextSequence++, bytes)->Bytes());
}

Expected<Done> Client::SendMultiplexerCommand(std::uint8_t command,
                                              std::span<const std::uint8_t> payload,
                                              Milliseconds timeout) {
    const auto deadline = SteadyClock::now() + timeout;
    const std::uint8_t sequence = implementation->nextSequence++;
    const auto packet = BuildMultiplexerCommand(sequence, command, payload);
    if (!packet) return TooLong("the payload", kMaxCommandPayload);
    PendingRequest request{ReplySource::kMultiplexer, command, sequence};
    const Registration registration(implementation->inbox, request);
    const std::string what = "multiplexer command " + std::to_string(command);
    if (auto sent = SendRaw(packet->Bytes()); !sent) return sent;
    const auto reply = implementation->inbox.WaitForReply(request, deadline, what);
    if (!reply) return reply.error();
    if (reply->isError) return RefusedError(what, reply->command, reply->code);
    return Done{};
}

Expected<Done> Client::SendRaw(std::span<const std::uint8_t> bytes) {
    return implementation->SendPacket(bytes);
}

Expected<Block> Client::Receive(ChildId child, Milliseconds timeout) {
    return implementation->inbox.Receive(child, SteadyClock::now() + timeout);
}

Expected<Block> Client::ReceiveDaq(Milliseconds timeout) {
    return implementation->inbox.ReceiveDaq(SteadyClock::now() + timeout);
}

std::uint8_t Client::NextSequence() const { return implementation->nextSequence; }

ClientStatistics Client::Statistics() const { return implementation->receiver.Statistics(); }

std::optional<ChildStatistics> Client::StatisticsOf(ChildId child) const {
    return implementation->inbox.StatisticsOf(child);
}

std::optional<Error> Client::LinkError() const { return implementation->inbox.LinkError(); }

}  // namespace vexahost
