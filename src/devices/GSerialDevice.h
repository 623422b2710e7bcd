// The host link over a serial line: raw, 8 bits, no parity, one stop bit, no flow control. The
// service has no caller: it belongs to the interface, for units without a USB gadget
// (examples/transports.cpp).
#pragma once

#include <cstdint>
#include <string>

#include "devices/GTransportDevice.h"

namespace vexa {

class GSerialDevice : public GTransportDevice {
  public:
    explicit GSerialDevice(const GPortRef* port);
    ~GSerialDevice() override;

    // For the next open, in baud: 50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800,
    // 9600 or 19200; any other value opens at 38400, which is also the default. -1 while open.
    int SetBaudRate(int rate);

    // The conventional name of the default port.
    static std::string GetDefaultPortName();

    // With a null `port` the device's own reference is used.
    int Open(const GPortRef* port) override;
    bool OSInitialize() override;
    bool IsServer() override;

  private:
    std::int32_t baudRate = 0;
};

}  // namespace vexa
