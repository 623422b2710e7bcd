// The host link over TCP: listens on all IPv4 addresses and serves one client at a time; further
// ones wait. The link counts as up while the device is open, with or without a client. The service
// has no caller: it belongs to the interface, for units on a network (examples/transports.cpp).
//
// Threads as in GDeviceIO. The reader thread accepts and closes the clients.
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

    // Sets the function that is told when a client connects (true) or leaves (false). Reader
    // thread; set it before Open.
    void SetConnectionReport(std::function<void(bool)> report);

    bool OSInitialize() override;
};

}  // namespace vexa
