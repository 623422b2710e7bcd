// A unit reached through a serial line.
#pragma once

#include <termios.h>

#include <atomic>
#include <memory>
#include <string>

#include "vexahost/Transport.h"

namespace vexahost {

struct SerialOptions {
    int baudRate = 38400;      // one of the standard rates, 300 to 921600
    bool flowControl = false;  // RTS/CTS
};

// The line runs raw with 8 data bits, no parity and one stop bit. A unit sends no frame headers
// over it.
class SerialTransport final : public Transport {
  public:
    // Opens the terminal device `path`. kInvalidArgument for a rate that is none of the standard
    // ones; kCannotConnect when the device cannot be opened or is no terminal.
    static Expected<std::unique_ptr<Transport>> Open(const std::string& path,
                                                     const SerialOptions& options = {});

    // Closes the line.
    ~SerialTransport() override;
    SerialTransport(const SerialTransport&) = delete;
    SerialTransport& operator=(const SerialTransport&) = delete;

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override;
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override;
    [[nodiscard]] Framing UnitFraming() const override { return Framing::kNone; }

    // Also restores the former settings of the line. Bytes not yet sent may be lost.
    void Close() override;

  private:
    SerialTransport(int terminal, int stopEvent, const termios& formerSettings);

    // Both open until destruction, so that no thread ever polls a reused number.
    const int line;
    const int stop;  // readable once closed
    const termios former;
    std::atomic<bool> closed{false};
};

}  // namespace vexahost
