// Tells other processes how the link stands: who connects to the socket gets two lines, one in
// words and one of JSON, and the end.
#pragma once

#include <functional>
#include <string>

#include "testkit/Descriptor.h"

namespace vexa::usb {

// One thread at a time.
class StatusSocket {
  public:
    // For the node /dev/`name`; `lines` gives what is told. Throws SetupError.
    StatusSocket(const std::string& name, std::function<std::string()> lines);
    ~StatusSocket();
    StatusSocket(const StatusSocket&) = delete;
    StatusSocket& operator=(const StatusSocket&) = delete;

    // To be called when the descriptor has something to read.
    [[nodiscard]] int Descriptor() const { return listener.Get(); }
    void OnConnection();

  private:
    const std::string path;
    const std::function<std::string()> lines;
    testkit::Descriptor listener;
};

// The two lines, from the vexa-usb that serves the node. Throws SetupError when there is none.
[[nodiscard]] std::string AskStatus(const std::string& name);

}  // namespace vexa::usb
