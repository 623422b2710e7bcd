// What stands between a host program and its unit, and records what passes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "testkit/Descriptor.h"
#include "vexahost/Recording.h"
#include "vexahost/SessionRecorder.h"
#include "vexahost/Transport.h"

namespace vexahost::tool {

// One thread at a time, except where it says otherwise.
class Relay {
  public:
    // `connect` makes a connection to the unit, one for each host.
    explicit Relay(TransportFactory connect);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Makes a host socket in `directory`. Replaces a socket on which nobody listens any more; any
    // other file of its name is left alone.
    Expected<Done> Listen(const std::string& directory);

    // Accepts hosts, one at a time, and connects each to the unit, until `isOver` returns true;
    // then passes on for up to a second what the host has still to send. When the unit cannot be
    // reached, reports that on standard error and disconnects the host. kInvalidArgument when the
    // recording cannot be written.
    Expected<Done> Serve(SessionRecorder& recording, const std::function<bool()>& isOver);

    // The host socket, once it is made.
    [[nodiscard]] const std::string& SocketPath() const { return socketPath; }

  private:
    void ServeHost(int host, const std::function<bool()>& isOver);
    // From the unit to the host, until either link has ended. Forwarder thread.
    void Forward(Transport& unit, int host);
    // From the host to the unit, until either link has ended or `isOver`.
    void ForwardRequests(Transport& unit, int host, const std::function<bool()>& isOver);
    void TurnNewcomersAway();

    const TransportFactory connect;
    std::string socketPath;
    vexa::testkit::Descriptor listener;
    // The host that was turned away last. Closed at once, it could lose the answer with what it had
    // sent.
    vexa::testkit::Descriptor refused;
    SessionRecorder* recorder = nullptr;  // while hosts are served
};

}  // namespace vexahost::tool
