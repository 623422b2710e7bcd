#include "vexahost/Client.h"

#include <string>
#include <utility>

#include "lib/Inbox.h"
#include "lib/Link.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

using vexa::ControllerCommand;

Error TooLong(const std::string& what, std::size_t most) {
    return {ErrorKind::kInvalidArgument,
            what + " has more than " + std::to_string(most) + " bytes"};
}

}  // namespace

class Client::Implementation {
  public:
    Implementation(TransportFactory factory, ClientOptions options_)
        : options(std::move(options_)),
          inbox(options.queueCapacity, options.isCancelled),
          link(inbox, options, std::move(factory)) {}

    // Sends a controller command, with `arguments` after the command byte, and waits for the reply.
    // Returns the reply's result byte. `child` is the one that the command names: nothing when it
    // names none, or closes the controller.
    Expected<std::uint8_t> Command(std::string what, ControllerCommand command,
                                   std::span<const std::uint8_t> arguments, Milliseconds timeout,
                                   std::optional<ChildId> child = {});
    Expected<Done> SendMultiplexerCommand(std::uint8_t command,
                                          std::span<const std::uint8_t> payload, Deadline deadline);

    const ClientOptions options;
    Inbox inbox;
    Link link;
};

// Requests.

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
    if (const auto sent = link.Send(packet.Bytes(), deadline); !sent) return sent.error();
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
    if (auto sent = link.Send(packet->Bytes(), deadline); !sent) return sent;
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
    implementation->link.Start(std::move(connected));
}

Client::~Client() = default;

Expected<std::unique_ptr<Client>> Client::Connect(TransportFactory factory, ClientOptions options,
                                                  Milliseconds timeout) {
    std::unique_ptr<Client> client(new Client(std::move(factory), std::move(options)));
    const auto connected = client->implementation->link.Connect(DeadlineAfter(timeout));
    if (!connected) return connected.error();
    return client;
}

Expected<Done> Client::Reconnect(Milliseconds timeout, std::optional<std::uint64_t> lost) {
    return implementation->link.Reconnect(DeadlineAfter(timeout), lost);
}

std::uint64_t Client::Connection() const { return implementation->inbox.Connection(); }

void Client::Close() { implementation->link.Close(); }

Expected<std::vector<std::uint8_t>> Client::InitialSync(Milliseconds timeout) {
    return implementation->link.InitialSync(DeadlineAfter(timeout));
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
    return implementation->link.Send(bytes, DeadlineAfter(timeout));
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

ClientStatistics Client::Statistics() const { return implementation->link.Statistics(); }

std::optional<ChildStatistics> Client::StatisticsOf(ChildId child) const {
    return implementation->inbox.StatisticsOf(child);
}

std::optional<Error> Client::LinkError() const { return implementation->inbox.LinkError(); }

}  // namespace vexahost
