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

    // Called with each packet in each direction: packets to the unit on the sender's thread, before
    // they are sent; received ones on the client's own, before they are processed. It must not call
    // the client. What it throws ends the link in the latter case, and reaches the sender in the
    // former, whose packet is not sent.
    std::function<void(Direction, std::span<const std::uint8_t>)> tap = {};

    // Asked about every 50 ms by each call that waits; when it returns true, the call ends with
    // kCancelled. For programs that end with a signal. It is called on any thread and must not
    // throw.
    std::function<bool()> isCancelled = {};
};

// Whether the unit's own DAQ application holds the acquisition hardware.
enum class DaqApplication { kHoldsHardware, kHoldsNothing };

// Any thread. Requests to the controller are made one after the other, as the unit drops a command
// that comes while it executes another; the timeout of a request includes the wait for its turn. A
// request that was not answered in time keeps the turn until its answer comes after all, until an
// initial sync is answered, or until the controller is opened anew.
//
// Every function can return kLinkLost, kProtocolViolation, kTimeout, kBusy and kCancelled. What the
// transport factory throws reaches the caller. Timeouts may be of any length.
class Client {
  public:
    static constexpr Milliseconds kDefaultTimeout{3000};
    static constexpr Milliseconds kTakeOverTimeout{15000};  // the applications have 10 s to let go

    // Connects and synchronises, both within `timeout`. kCannotConnect when the first attempt to
    // connect fails; kBusy when the unit has another host.
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
    //
    // Several threads may see the loss of one connection. Each gives its number (Connection) as
    // `lost`: the first reconnects, the others wait for it and find the work done.
    Expected<Done> Reconnect(Milliseconds timeout, std::optional<std::uint64_t> lost = {});

    // The number of the connection; each new one has a higher number.
    [[nodiscard]] std::uint64_t Connection() const;

    // Brings the unit's parser and this side in step. Repeats the request every 500 ms, since a
    // unit that has just been plugged in may need some time. The service answers, or the DAQ itself
    // while the DAQ link is open. Returns the reply's 26 bytes.
    //
    // The client does the same by itself when the packets of the unit are not where they have to
    // be, as after an overflow of the unit's output buffer, and counts that (ClientStatistics).
    Expected<std::vector<std::uint8_t>> InitialSync(Milliseconds timeout = kDefaultTimeout);

    // Opens the controller under an id of the caller's choice and closes all children. With
    // `withDaq` also brings the DAQ link up; without it multiplexer commands are refused. The
    // controller is open also when the DAQ link was refused (code 59).
    Expected<Done> OpenController(ChildId controller, bool withDaq,
                                  Milliseconds timeout = kDefaultTimeout);

    // The following five: kNotOpen while the controller is not open.

    Expected<DaqApplication> QueryDaqApplication(Milliseconds timeout = kDefaultTimeout);

    // Makes the unit's applications give up the hardware and brings the DAQ link up.
    Expected<Done> TakeDaqOver(Milliseconds timeout = kTakeOverTimeout);

    // Opens the first attached device of the type that `name` stands for. `child` is the caller's
    // choice: any id that is neither in use nor the controller's. kInvalidArgument for a name of
    // more than 219 bytes and for "Controller", which would open the controller anew.
    Expected<Done> OpenDevice(std::string_view name, ChildId child,
                              Milliseconds timeout = kDefaultTimeout);

    // Closes a device; with the controller's id everything, as CloseController does.
    Expected<Done> CloseDevice(ChildId child, Milliseconds timeout = kDefaultTimeout);

    // Closes the controller with all children and hands the hardware back.
    Expected<Done> CloseController(Milliseconds timeout = kDefaultTimeout);

    // Sends bytes to a child; the unit does not answer. kNotOpen when the child is not open.
    // kInvalidArgument for more than kMaxRequestToChild bytes, and for bytes that the unit would
    // execute as the command to reopen the controller (vexa::ReopensController).
    Expected<Done> Send(ChildId child, std::span<const std::uint8_t> bytes,
                        Milliseconds timeout = kDefaultTimeout);

    // Sends a multiplexer command and waits for the DAQ to acknowledge it. Refused with code 48
    // while the DAQ link is closed.
    Expected<Done> SendMultiplexerCommand(std::uint8_t command,
                                          std::span<const std::uint8_t> payload,
                                          Milliseconds timeout = kDefaultTimeout);

    // Sends bytes as they are, for example to provoke an error. What they open or close at the unit
    // is not followed here.
    Expected<Done> SendRaw(std::span<const std::uint8_t> bytes,
                           Milliseconds timeout = kDefaultTimeout);

    // The oldest block of a child in its queue. kNotOpen when the child is not open.
    Expected<Block> Receive(ChildId child, Milliseconds timeout);

    // The oldest packet of the DAQ in its queue.
    Expected<Block> ReceiveDaq(Milliseconds timeout);

    // The oldest block of any of the children and, with `withDaq`, of the DAQ. kNotOpen when one of
    // the children is not open.
    Expected<Received> ReceiveAny(std::span<const ChildId> children, bool withDaq,
                                  Milliseconds timeout);

    // Sequence number of the next request, unless a request under way still has it.
    [[nodiscard]] std::uint8_t NextSequence() const;

    // Counts since the client was made.
    [[nodiscard]] ClientStatistics Statistics() const;

    // Counts since the child was opened; nothing when it is not open.
    [[nodiscard]] std::optional<ChildStatistics> StatisticsOf(ChildId child) const;

    // The error that ended the link; nothing while the link is up.
    [[nodiscard]] std::optional<Error> LinkError() const;

    // Ends the connection (for the unit: pulls the cable) and a Reconnect that is under way or
    // waits its turn. Waiting calls return kLinkLost.
    void Close();

  private:
    class Implementation;
    Client(TransportFactory factory, ClientOptions options);

    const std::unique_ptr<Implementation> implementation;
};

}  // namespace vexahost
