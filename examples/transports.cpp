// The whole service over each of the three transports: the gadget node, a serial line, TCP.
//
//   transports usb | transports serial /dev/ttyS0 [BAUD] | transports tcp [PORT]
//
// It links with the maker's two libraries as the service does, so `vexa-unit run -- transports tcp`
// runs it on a virtual unit. Ends on Ctrl-C.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "core/Service.h"
#include "devices/GSerialDevice.h"
#include "devices/GServerSocketDevice.h"
#include "devices/HostLink.h"

namespace {

vexa::Service& service = *new vexa::Service;  // never destroyed, as in the service itself

const char* path = nullptr;
int number = 0;  // baud rate or port; 0: the default

int OpenSerial() {
    const vexa::GPortRef port(0, path, "", path, 0, 0);
    auto device = std::make_unique<vexa::GSerialDevice>(&port);
    if (number != 0) device->SetBaudRate(number);
    return vexa::HostLink_OpenDevice(std::move(device), port);
}

int OpenTcp() {
    using vexa::GPortRef;
    GPortRef port = vexa::GServerSocketDevice::EnumeratePorts(GPortRef::kHostPort).front();
    if (number != 0) port.SetPort(static_cast<std::uint16_t>(number));
    auto device = std::make_unique<vexa::GServerSocketDevice>(&port);
    // This link counts as up while the device is open, so the transport says itself when a host
    // has gone: what it had opened is closed then.
    device->SetConnectionReport([](bool here) { vexa::SetHostConnected(here, nullptr); });
    return vexa::HostLink_OpenDevice(std::move(device), port);
}

vexa::Service::OpenLink Choose(int argc, char** argv) {
    const std::string_view kind = argc > 1 ? argv[1] : "";
    if (kind == "usb" && argc == 2) return vexa::HostLink_Open;
    if (kind == "serial" && (argc == 3 || argc == 4)) {
        path = argv[2];
        if (argc == 4) number = std::atoi(argv[3]);
        return OpenSerial;
    }
    if (kind == "tcp" && argc <= 3) {
        if (argc == 3) number = std::atoi(argv[2]);
        if (number >= 0 && number <= UINT16_MAX) return OpenTcp;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const auto openLink = Choose(argc, argv);
    if (openLink == nullptr) {
        std::fprintf(stderr, "usage: transports usb | serial PATH [BAUD] | tcp [PORT]\n");
        return 2;
    }
    std::signal(SIGINT, [](int) { service.Stop(); });
    std::signal(SIGTERM, [](int) { service.Stop(); });
    std::signal(SIGPIPE, SIG_IGN);
    service.Run(openLink);
    return 0;
}
