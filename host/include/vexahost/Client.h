// A whole conversation with a unit.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "vexahost/Block.h"
#include "vexahost/Describe.h"
#include "vexahost/Expected.h"
#include "vexahost/Packet.h"
#include "vexahost/Transport.h"

namespace vexahost {

using Milliseconds = std::chrono::milliseconds;

struct ClientOptions {
    // Blocks kept for each child, and packets kept of the DAQ, until they are received; when one
    // more comes, the oldest is dropped and counted. At least 1.
    std::size_t queueCapacity = 1024;

    // Called with each packet in each direction: sent packets on the sender's thread, received ones
    // on the client's own, before they are processed. It must not call the client.
    std::function<void(Direction, std::span<const std::uint8_t>)> tap;
};

// Makes a new connection to a unit, for example with SocketTransport::ConnectUnit. Called for each
// connection, on the thread that asks for it.
using TransportFactory = std::function<Expected<std::unique_ptr<Transport>>()>;

// Any thread. Requests to the controller are made one after the other, as the unit drops a command
// that comes while it executes another; the timeout of a request includes the wait for its turn.
// Every function can return kLinkLost, kProtocolViolation and kTimeout.
class Client {
  public:
    static constexpr Milliseconds kDefaultTimeout{3000};
    static constexpr Milliseconds kTakeOverTimeout{15000};  // the applications have 10 s to let go

    // Connects and synchronises. kCannotConnect when the first attempt to connect fails; `timeout`
    // is for the unit's answer.
    static Expected<std::unique_ptr<Client>> Connect(TransportFactory factory,
                                                     ClientOptions options = {},
                                                     Milliseconds timeout = kDefaultTimeout);

    // Starts the receiving thread on a connected transport. Such a client cannot reconnect.
    explicit Client(std::unique_ptr<Transport> connected, ClientOptions options = {});

    // Ends the connection and the thread.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Ends the connection, if there is one, then connects anew and synchronises, with as many
    // attempts as `timeout` allows. Afterwards nothing is open, neither devices nor the controller,
    // and blocks that were not received are dropped. Waiting calls of other threads end with
    // kLinkLost, and so does this one when Close is called meanwhile. On failure: the error of the
    // last attempt; kInvalidArgument without a factory.
    Expected<Done> Reconnect(Milliseconds timeout);

    // Brings the unit's parser and this side in step. Repeats the request every 500 ms, since a
    // unit that has just been plugged in may need some time. The service answers, or the DAQ itself
    // while the DAQ link is open. Returns the reply's 26 bytes.
    Expected<std::vector<std::uint8_t>> InitialSync(Milliseconds timeout = kDefaultTimeout);

    // Opens the controller under an id of the caller's choice and closes all children. With
    // `withDaq` also brings the DAQ link up; without it multiplexer commands are refused.
    Expected<Done> OpenController(ChildId controller, bool withDaq,
                                  Milliseconds timeout = kDefaultTimeout);

    // True when the unit's own DAQ application says that it holds the hardware.
    Expected<bool> QueryDaqApplication(Milliseconds timeout = kDefaultTimeout);

    // Makes the unit's applications give up the hardware and brings the DAQ link up.
    Expected<Done> TakeDaqOver(Milliseconds timeout = kTakeOverTimeout);

    // Opens the first attached device of the type that `name` stands for. `child` is the caller's
    // choice: any id that is neither in use nor the controller's.
    Expected<Done> OpenDevice(std::string_view name, ChildId child,
                              Milliseconds timeout = kDefaultTimeout);

    Expected<Done> CloseDevice(ChildId child, Milliseconds timeout = kDefaultTimeout);

    // Closes the controller with all children and hands the hardware back.
    Expected<Done> CloseController(Milliseconds timeout = kDefaultTimeout);

    // Sends bytes to a child; the unit does not answer. kInvalidArgument for more than
    // kMaxRequestToChild bytes, and for bytes that the unit would execute as the command to reopen
    // the controller (vexa::ReopensController).
    Expected<Done> Send(ChildId child, std::span<const std::uint8_t> bytes);

    // Sends a multiplexer command and waits for the DAQ to acknowledge it. Refused with code 48
    // while the DAQ link is closed.
    Expected<Done> SendMultiplexerCommand(std::uint8_t command,
                                          std::span<const std::uint8_t> payload,
                                          Milliseconds timeout = kDefaultTimeout);

    // Sends bytes as they are, for example to provoke an error.
    Expected<Done> SendRaw(std::span<const std::uint8_t> bytes);

    // The oldest block of a child in its queue. kInvalidArgument when the child is not open.
    Expected<Block> Receive(ChildId child, Milliseconds timeout);

    // The oldest packet of the DAQ in its queue.
    Expected<Block> ReceiveDaq(Milliseconds timeout);

    // Sequence number of the next request.
    [[nodiscard]] std::uint8_t NextSequence() const;

    // Counts since the client was made.
    [[nodiscard]] ClientStatistics Statistics() const;

    // Counts since the child was opened; nothing when it is not open.
    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;

    // The error that ended the link; nothing while the link is up.
    [[nodiscard]] std::optional<Error> LinkError() const;

    // Ends the connection (for the unit: pulls the cable) and a Reconnect that is under way.
    // Waiting calls return kLinkLost.
    void Close();

  private:
    class Implementation;
    Client(TransportFactory factory, ClientOptions options);

    const std::unique_ptr<Implementation> implementation;
};

}  // namespace vexahost
