// A unit reached through a connected stream socket.
#pragma once

#include <memory>
#include <string>

#include "vexahost/Transport.h"

namespace vexahost {

class SocketTransport final : public Transport {
  public:
    // Name of the host socket in a virtual unit's directory.
    static constexpr const char* kSocketName = "host.sock";

    // TCP port of a unit that serves its link over the network.
    static constexpr const char* kTcpPort = "38144";

    // Connects to a virtual unit, which plugs its cable in. `path` is the unit's directory or the
    // socket itself. kCannotConnect when nobody listens there, or nobody accepts within `limits`.
    static Expected<std::unique_ptr<Transport>> ConnectUnit(const std::string& path,
                                                            const ConnectLimits& limits = {});

    // Connects to a unit over TCP; `address` is "HOST" or "HOST:PORT", an IPv6 address in brackets
    // ("[::1]:38144"). Every address of a name is tried. What such a unit sends carries no frame
    // headers. kInvalidArgument for anything else; kCannotConnect when the name is unknown, or
    // nobody listens or answers within `limits`.
    static Expected<std::unique_ptr<Transport>> ConnectTcp(const std::string& address,
                                                           const ConnectLimits& limits = {});

    // Uses a connected stream socket and owns it from now on.
    SocketTransport(int connectedSocket, Framing framing);
    ~SocketTransport() override;
    SocketTransport(const SocketTransport&) = delete;
    SocketTransport& operator=(const SocketTransport&) = delete;

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override;
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override;
    [[nodiscard]] Framing UnitFraming() const override { return framing; }
    void Close() override;

  private:
    const int socketHandle;  // open until destruction, so that no thread ever polls a reused number
    const Framing framing;
};

}  // namespace vexahost
