// A whole conversation with a unit.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Block.h"
#include "vexahost/Describe.h"
#include "vexahost/Expected.h"
#include "vexahost/Packet.h"
#include "vexahost/Transport.h"
#include "vexahost/protocol/Commands.h"

namespace vexahost {

using Milliseconds = std::chrono::milliseconds;

class Inbox;
class PendingReplies;

struct ClientOptions {
    /// Blocks kept for a child, and packets kept of the DAQ, until they are received; when one more
    /// comes, the oldest is dropped and counted. At least 1.
    std::size_t queueCapacity = 1024;

    /// Called with each packet in each direction, before anything is made of it: for what is sent
    /// on the sender's thread, for what comes on the client's own. It must not call the client.
    std::function<void(Direction, std::span<const std::uint8_t>)> tap;
};

/// Makes a new connection to a unit, e.g. by SocketTransport::ConnectUnit; called whenever a client
/// connects, on the thread that asks for it.
using TransportFactory = std::function<Expected<std::unique_ptr<Transport>>()>;

/// All functions may be called from any thread. Requests to the controller are made one after the
/// other, as the unit drops a command that comes while another is under way; the time-out of a
/// request includes the wait for its turn. Every function may give kLinkLost or
/// kProtocolViolation, from the moment at which that has happened, and kTimeout.
class Client {
  public:
    static constexpr Milliseconds kDefaultTimeout{3000};
    static constexpr Milliseconds kTakeOverTimeout{15000};  // the applications have 10 s to let go

    /// Connects and brings both sides in step. kCannotConnect when no connection comes about at the
    /// first attempt; `timeout` is for the unit's answer.
    static Expected<std::unique_ptr<Client>> Connect(TransportFactory factory,
                                                     ClientOptions options = {},
                                                     Milliseconds timeout = kDefaultTimeout);

    /// Starts the conversation's receiving thread on a connected transport. Such a client cannot
    /// reconnect.
    explicit Client(std::unique_ptr<Transport> connected, ClientOptions options = {});

    /// Ends the connection and the thread.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Ends the connection, if there is one, connects anew and brings both sides in step; tries
    /// again until `timeout` is up. All that was open is gone then: the controller is to be opened
    /// first, then the devices. Blocks that were not received are dropped. Calls of other threads
    /// that wait end with kLinkLost, and so does this one when Close is called meanwhile. At the
    /// end of the time: the error of the last attempt. kInvalidArgument without a factory.
    Expected<Done> Reconnect(Milliseconds timeout);

    /// Brings the unit's parser and this side in step; sends the request again every 500 ms, since
    /// a unit that has just been plugged in may take its time. Answered by the service, or by the
    /// DAQ itself while the DAQ link is open. Gives the reply's 26 bytes.
    Expected<std::vector<std::uint8_t>> InitialSync(Milliseconds timeout = kDefaultTimeout);

    /// Opens the controller under an id of the caller's choice and closes all children. With
    /// `withDaq` the DAQ link is brought up as well; without, multiplexer commands are refused.
    Expected<Done> OpenController(ChildId controller, bool withDaq,
                                  Milliseconds timeout = kDefaultTimeout);

    /// True when the unit's own DAQ application says that it holds the hardware.
    Expected<bool> QueryDaqApplication(Milliseconds timeout = kDefaultTimeout);

    /// Makes the unit's applications give up the hardware and brings the DAQ link up.
    Expected<Done> TakeDaqOver(Milliseconds timeout = kTakeOverTimeout);

    /// Opens the first attached device of the type that `name` stands for. `child` is the caller's
    /// choice, neither in use nor the controller's.
    Expected<Done> OpenDevice(std::string_view name, ChildId child,
                              Milliseconds timeout = kDefaultTimeout);

    Expected<Done> CloseDevice(ChildId child, Milliseconds timeout = kDefaultTimeout);

    /// Closes the controller with all children and hands the hardware back.
    Expected<Done> CloseController(Milliseconds timeout = kDefaultTimeout);

    /// Sends bytes to a child; nothing answers for the unit. kInvalidArgument for more than
    /// kMaxRequestToChild bytes, and for content that the unit would take for the command to reopen
    /// the controller (ReopensController).
    Expected<Done> Send(ChildId child, std::span<const std::uint8_t> bytes);

    /// Sends a multiplexer command and waits for its acknowledgement by the DAQ. Refused with
    /// code 48 while the DAQ link is closed.
    Expected<Done> SendMultiplexerCommand(std::uint8_t command,
                                          std::span<const std::uint8_t> payload,
                                          Milliseconds timeout = kDefaultTimeout);

    /// Sends bytes as they are, e.g. to provoke an error.
    Expected<Done> SendRaw(std::span<const std::uint8_t> bytes);

    /// The oldest block of a child that was not received yet. kInvalidArgument when it is not open.
    Expected<Block> Receive(ChildId child, Milliseconds timeout);

    /// The oldest packet of the DAQ that was not received yet.
    Expected<Block> ReceiveDaq(Milliseconds timeout);

    /// Sequence number of the request that is sent next, as the unit will see it.
    [[nodiscard]] std::uint8_t NextSequence() const { return nextSequence.load(); }

    /// Counts since the start.
    [[nodiscard]] ClientStatistics Statistics() const;

    /// Counts since the child was opened; nothing when it is not open.
    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;

    /// Why the link has ended; nothing while it is up, or up again.
    [[nodiscard]] std::optional<Error> LinkError() const;

    /// Ends the connection (for the unit: pulls the cable) and any Reconnect that is under way.
    /// Waiting calls return with kLinkLost.
    void Close();

  private:
    class Receiver;

    Client(TransportFactory transportFactory, ClientOptions clientOptions);

    static Error ClosedHere();
    Expected<Done> AttemptUntil(std::chrono::steady_clock::time_point deadline,
                                std::uint64_t closesSeen);
    Expected<Done> Attempt(std::chrono::steady_clock::time_point deadline,
                           std::uint64_t closesSeen);
    Expected<Done> PutToUse(std::shared_ptr<Transport> connected, std::uint64_t closesSeen);
    void EndConnection();
    Expected<Done> SendPacket(std::span<const std::uint8_t> packet);
    Expected<Done> ControllerRequest(const std::string& what, vexa::ControllerCommand command,
                                     Milliseconds timeout,
                                     const std::function<Packet(std::uint8_t sequence)>& build,
                                     std::uint8_t* result = nullptr);

    const ClientOptions options;
    const TransportFactory factory;  // null when the connection was given
    std::atomic<std::uint8_t> nextSequence{1};
    std::atomic<ChildId> controllerId{0};

    std::mutex writeMutex;  // held while one packet is written, so that packets stay whole

    std::mutex linkMutex;  // guards the rest of this group
    std::condition_variable linkChanged;
    std::shared_ptr<Transport> transport;  // set with writeMutex held too; null before the first
    std::uint64_t closes = 0;              // calls of Close
    bool reconnecting = false;  // one thread is at it; the receiver's thread is in its hands

    std::mutex controllerMutex;  // guards controllerBusy
    std::condition_variable controllerFree;
    bool controllerBusy = false;  // a controller request is under way

    const std::unique_ptr<PendingReplies> pending;  // guards itself
    const std::unique_ptr<Inbox> inbox;             // guards itself
    std::unique_ptr<Receiver> receiver;             // last, as its thread uses all of the above
};

}  // namespace vexahost
