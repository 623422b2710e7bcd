// The host link over TCP: listens on all IPv4 addresses and serves one client at a time; further
// ones wait. The link counts as up while the device is open, client or not.
//
// Threads: as GDeviceIO. The reader thread alone accepts, receives and closes clients.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "devices/GTransportDevice.h"

namespace vexa {

class GServerSocketDevice : public GTransportDevice {
  public:
    static constexpr std::uint16_t kDefaultPort = 38144;

    // Listens on the TCP port of `port`.
    explicit GServerSocketDevice(const GPortRef* port);
    ~GServerSocketDevice() override;

    // The ports of a kind: for GPortRef::kHostPort one reference to kDefaultPort on all addresses,
    // else none.
    static std::vector<GPortRef> EnumeratePorts(std::int32_t portType);

    // Whom to tell that a client has come (true) or gone (false): called on the reader thread. Set
    // before Open; without one nobody is told.
    void SetConnectionReport(std::function<void(bool)> report);

    bool OSInitialize() override;
};

}  // namespace vexa
