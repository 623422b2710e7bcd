// The host socket of a virtual unit.
#pragma once

#include <memory>
#include <string>

#include "vexahost/Transport.h"

namespace vexahost {

class UnitSocketTransport final : public Transport {
  public:
    /// Name of the host socket in a unit's directory.
    static constexpr const char* kSocketName = "host.sock";

    /// Connects to a virtual unit; for the unit this plugs the cable in. `path` is the unit's
    /// directory, or the socket itself. kCannotConnect when nobody listens there.
    static Expected<std::unique_ptr<Transport>> Connect(const std::string& path);

    /// Takes over a connected stream socket.
    explicit UnitSocketTransport(int connectedSocket);
    ~UnitSocketTransport() override;
    UnitSocketTransport(const UnitSocketTransport&) = delete;
    UnitSocketTransport& operator=(const UnitSocketTransport&) = delete;

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override;
    Expected<Done> WriteAll(std::span<const std::uint8_t> bytes,
                            std::chrono::milliseconds timeout) override;
    void Close() override;

  private:
    const int socketHandle;  // open until destruction, so that no thread ever polls a reused number
};

}  // namespace vexahost
