// The whole link: gadget, endpoints, node and status, on one thread with one event loop.
#pragma once

#include <string>

#include "testkit/Descriptor.h"
#include "usb/Endpoints.h"
#include "usb/Gadget.h"
#include "usb/Node.h"
#include "usb/StatusSocket.h"

namespace vexa::usb {

struct LinkSettings {
    std::string node = "zt-usb";
    GadgetSettings gadget;
    CableRule cable = CableRule::kConfigured;
};

class UsbLink {
  public:
    // Makes everything but the node, which appears once Run serves it. Throws SetupError.
    explicit UsbLink(const LinkSettings& settings);

    // Serves until SIGTERM, SIGINT or SIGHUP, which must be blocked before. Says on standard output
    // what happens. Throws SetupError when the link cannot be served or the kernel ends it.
    void Run();

  private:
    void OnReady();
    void SayCable();
    [[nodiscard]] std::string Status() const;

    const testkit::Descriptor lock;
    const LinkSettings settings;
    Gadget gadget;
    Endpoints endpoints;
    Node node;
    StatusSocket status;
    bool isReady = false;
};

}  // namespace vexa::usb
