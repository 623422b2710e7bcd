// A connection to a running unit's control socket.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "testkit/Descriptor.h"

namespace vexa::unit {

// One thread at a time.
class ControlClient {
  public:
    // Throws UserError when no unit runs in `folder`, or it does not accept the connection within
    // 10 s.
    explicit ControlClient(const std::string& folder);

    // Sends a request and returns the answer, both as a line without the line feed. Throws
    // UserError when the unit ends or does not answer within 10 s and `waitMs`.
    [[nodiscard]] std::string Ask(const std::string& line, std::uint32_t waitMs = 0);

    // The next line that the unit sends, whenever that is; nothing once the unit has ended.
    [[nodiscard]] std::optional<std::string> Receive();

  private:
    [[noreturn]] void FailUnanswered() const;
    void Send(std::string line) const;
    // Waits for a line, at most `timeoutMs` (-1: without end).
    [[nodiscard]] std::optional<std::string> ReceiveLine(int timeoutMs);

    const std::string folder;
    testkit::Descriptor connection;
    std::string received;  // the part after the lines that were returned
};

}  // namespace vexa::unit
