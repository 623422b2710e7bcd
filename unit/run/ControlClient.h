// A connection to a running unit's control socket.
#pragma once

#include <string>

#include "testkit/Descriptor.h"

namespace vexa::unit {

// One thread at a time.
class ControlClient {
  public:
    // Throws UserError when no unit runs in `folder`.
    explicit ControlClient(const std::string& folder);

    // Sends a request and returns the answer, both as a line without the line feed. Throws
    // UserError when the unit ends or does not answer.
    [[nodiscard]] std::string Ask(const std::string& line);

  private:
    void Send(std::string line) const;
    [[nodiscard]] std::string ReceiveLine();

    const std::string folder;
    testkit::Descriptor connection;
    std::string received;  // the part after the lines that were returned
};

}  // namespace vexa::unit
