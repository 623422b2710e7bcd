#include "vexahost/Client.h"

#include <algorithm>

#include "Inbox.h"
#include "PendingReplies.h"
#include "Receiver.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost {

namespace {

using SteadyClock = std::chrono::steady_clock;
using vexa::ControllerCommand;

constexpr Milliseconds kWriteTimeout{3000};
constexpr Milliseconds kSyncRepeat{500};

Error TooLong(const std::string& what, std::size_t most) {
    return {ErrorKind::kInvalidArgument,
            what + " has more than " + std::to_string(most) + " bytes"};
}

// Keeps a request in the table of those that wait for replies.
class Registration {
  public:
    Registration(PendingReplies& replies, PendingRequest& entry) : table(replies), request(entry) {
        table.Add(request);
    }
    ~Registration() { table.Remove(request); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

  private:
    PendingReplies& table;
    PendingRequest& request;
};

}  // namespace

Client::Client(TransportFactory transportFactory, ClientOptions clientOptions)
    : options(std::move(clientOptions)),
      factory(std::move(transportFactory)),
      pending(std::make_unique<PendingReplies>()),
      inbox(std::make_unique<Inbox>(options.queueCapacity)),
      receiver(std::make_unique<Receiver>(*this)) {}

Client::Client(std::unique_ptr<Transport> connected, ClientOptions clientOptions)
    : Client(TransportFactory{}, std::move(clientOptions)) {
    transport = std::move(connected);
    receiver->Start(transport);
}

Client::~Client() { EndConnection(); }

Error Client::ClosedHere() { return {ErrorKind::kLinkLost, "the link was closed by this side"}; }

void Client::EndConnection() {
    pending->Fail(ClosedHere());
    inbox->Fail(ClosedHere());
    std::shared_ptr<Transport> ending;
    {
        const std::lock_guard lock(linkMutex);
        ending = transport;
    }
    if (ending) ending->Close();
}

void Client::Close() {
    {
        const std::lock_guard lock(linkMutex);
        ++closes;
    }
    linkChanged.notify_all();
    EndConnection();
}

Expected<Done> Client::SendPacket(std::span<const std::uint8_t> packet) {
    const std::lock_guard lock(writeMutex);
    if (auto error = pending->LinkError()) return *error;
    if (options.tap) options.tap(Direction::kToUnit, packet);
    return transport->WriteAll(packet, kWriteTimeout);
}

Expected<std::vector<std::uint8_t>> Client::InitialSync(Milliseconds timeout) {
    const auto deadline = SteadyClock::now() + timeout;
    const std::uint8_t sequence = nextSequence++;
    const Packet packet = BuildInitialSync(sequence);
    PendingRequest request{ReplySource::kInitialSync, vexa::kInitialSyncCommand, sequence, {}};
    const Registration registration(*pending, request);
    for (;;) {
        receiver->AwaitSyncReply();
        if (const auto sent = SendPacket(packet.Bytes()); !sent) return sent.Failure();
        const auto next = std::min(deadline, SteadyClock::now() + kSyncRepeat);
        const auto reply = pending->Wait(request, next, "initial sync");
        if (reply) return reply->bytes;
        if (reply.Failure().kind != ErrorKind::kTimeout || SteadyClock::now() >= deadline) {
            return reply.Failure();
        }
    }
}

Expected<Done> Client::ControllerRequest(const std::string& what, ControllerCommand command,
                                         Milliseconds timeout,
                                         const std::function<Packet(std::uint8_t)>& build,
                                         std::uint8_t* result) {
    const auto deadline = SteadyClock::now() + timeout;
    {
        std::unique_lock lock(controllerMutex);
        if (!controllerFree.wait_until(lock, deadline, [&] { return !controllerBusy; })) {
            return Error{ErrorKind::kTimeout, "no turn at the controller in time for: " + what};
        }
        controllerBusy = true;
    }
    const auto answer = [&]() -> Expected<Reply> {
        const std::uint8_t sequence = nextSequence++;
        PendingRequest request{
            ReplySource::kController, static_cast<std::uint8_t>(command), sequence, {}};
        const Registration registration(*pending, request);
        if (const auto sent = SendPacket(build(sequence).Bytes()); !sent) return sent.Failure();
        return pending->Wait(request, deadline, what);
    }();
    {
        const std::lock_guard lock(controllerMutex);
        controllerBusy = false;
    }
    controllerFree.notify_one();

    if (!answer) return answer.Failure();
    if (answer->isError) return RefusedError(what, answer->command, answer->code);
    if (result != nullptr) *result = answer->code;
    return Done{};
}

Expected<Done> Client::OpenController(ChildId controller, bool withDaq, Milliseconds timeout) {
    return ControllerRequest("open controller", ControllerCommand::kReopenController, timeout,
                             [&](std::uint8_t sequence) {
                                 inbox->RemoveAll();
                                 controllerId = controller;
                                 return BuildReopenController(controller, withDaq, sequence);
                             });
}

Expected<bool> Client::QueryDaqApplication(Milliseconds timeout) {
    std::uint8_t result = 0;
    const auto done = ControllerRequest(
        "query DAQ application", ControllerCommand::kQueryDaqApplication, timeout,
        [&](std::uint8_t sequence) { return BuildQueryDaqApplication(controllerId, sequence); },
        &result);
    if (!done) return done.Failure();
    return result == 1;
}

Expected<Done> Client::TakeDaqOver(Milliseconds timeout) {
    return ControllerRequest(
        "take DAQ over", ControllerCommand::kTakeDaqOver, timeout,
        [&](std::uint8_t sequence) { return BuildTakeDaqOver(controllerId, sequence); });
}

Expected<Done> Client::OpenDevice(std::string_view name, ChildId child, Milliseconds timeout) {
    if (name.size() > kMaxDeviceName) return TooLong("the device name", kMaxDeviceName);
    // A device may send before the answer is here, so its blocks are kept from now on. The
    // controller's id is for the unit to refuse: the answer comes under it.
    const bool isNew = child != controllerId && inbox->Open(child);
    auto done = ControllerRequest("open " + std::string(name), ControllerCommand::kOpenChild,
                                  timeout, [&](std::uint8_t sequence) {
                                      return *BuildOpenChild(controllerId, sequence, child, name);
                                  });
    if (!done && isNew) inbox->Remove(child);
    return done;
}

Expected<Done> Client::CloseDevice(ChildId child, Milliseconds timeout) {
    auto done = ControllerRequest(
        "close child " + std::to_string(child), ControllerCommand::kCloseChild, timeout,
        [&](std::uint8_t sequence) { return BuildCloseChild(controllerId, sequence, child); });
    if (done) inbox->Remove(child);
    return done;
}

Expected<Done> Client::CloseController(Milliseconds timeout) {
    auto done = ControllerRequest("close controller", ControllerCommand::kCloseChild, timeout,
                                  [&](std::uint8_t sequence) {
                                      return BuildCloseChild(controllerId, sequence, controllerId);
                                  });
    if (done) inbox->RemoveAll();
    return done;
}

Expected<Done> Client::Send(ChildId child, std::span<const std::uint8_t> bytes) {
    if (bytes.size() > kMaxRequestToChild) return TooLong("the request", kMaxRequestToChild);
    if (vexa::ReopensController(bytes)) {
        return Error{ErrorKind::kInvalidArgument,
                     "the unit would take these bytes for the command to open the controller"};
    }
    return SendPacket(BuildTunnel(child, nextSequence++, bytes)->Bytes());
}

Expected<Done> Client::SendMultiplexerCommand(std::uint8_t command,
                                              std::span<const std::uint8_t> payload,
                                              Milliseconds timeout) {
    const auto deadline = SteadyClock::now() + timeout;
    const std::uint8_t sequence = nextSequence++;
    const auto packet = BuildMultiplexerCommand(sequence, command, payload);
    if (!packet) return TooLong("the payload", kMaxCommandPayload);
    PendingRequest request{ReplySource::kMultiplexer, command, sequence, {}};
    const Registration registration(*pending, request);
    const std::string what = "multiplexer command " + std::to_string(command);
    if (auto sent = SendPacket(packet->Bytes()); !sent) return sent;
    const auto reply = pending->Wait(request, deadline, what);
    if (!reply) return reply.Failure();
    if (reply->isError) return RefusedError(what, reply->command, reply->code);
    return Done{};
}

Expected<Done> Client::SendRaw(std::span<const std::uint8_t> bytes) { return SendPacket(bytes); }

Expected<Block> Client::Receive(ChildId child, Milliseconds timeout) {
    return inbox->Receive(child, SteadyClock::now() + timeout);
}

Expected<Block> Client::ReceiveDaq(Milliseconds timeout) {
    return inbox->ReceiveDaq(SteadyClock::now() + timeout);
}

ClientStatistics Client::Statistics() const { return receiver->Statistics(); }

std::optional<ChildStatistics> Client::StatisticsOf(ChildId child) const {
    return inbox->StatisticsOf(child);
}

std::optional<Error> Client::LinkError() const { return pending->LinkError(); }

}  // namespace vexahost
