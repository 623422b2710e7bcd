// A connection to a running unit's control socket.
#pragma once

#include <string>

#include "model/Descriptor.h"

namespace vexa::unit {

class ControlClient {
  public:
    // Throws UserError when no unit runs in `folder`.
    explicit ControlClient(const std::string& folder);

    // Sends a request, a line without its line feed, and waits for the answer to it, likewise.
    // Throws UserError when the unit ends or does not answer.
    [[nodiscard]] std::string Ask(const std::string& line);

  private:
    void Send(std::string line) const;
    // Waits for the next line.
    [[nodiscard]] std::string Receive();

    const std::string folder;
    Descriptor connection;
    std::string received;  // beyond the lines that were returned
};

}  // namespace vexa::unit
