// How to run the service's multiplexer over each of the three transports: the gadget node, a serial
// line, TCP.
//
//   transports usb | transports serial /dev/ttyS0 [BAUD] | transports tcp [PORT]
//
// Each transport delivers what it reads to a callback on a thread of its own (HostLink_OpenDevice
// sets HostDeviceReadCallback); the loop below does the rest on this one. Ends on Ctrl-C.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "VEXA.h"
#include "devices/GSerialDevice.h"
#include "devices/GServerSocketDevice.h"
#include "devices/GServerUSBBulkDevice.h"
#include "devices/HostLink.h"
#include "foundation/GUtils.h"
#include "mux/HostMux.h"

namespace {

std::atomic<bool> stop{false};

std::unique_ptr<vexa::GDeviceIO> MakeDevice(std::string_view kind, int argc, char** argv) {
    using vexa::GPortRef;
    if (kind == "serial" && argc > 2) {
        const GPortRef port(0, argv[2], "", argv[2], 0, 0);
        auto device = std::make_unique<vexa::GSerialDevice>(&port);
        if (argc > 3) device->SetBaudRate(std::atoi(argv[3]));
        return device;
    }
    if (kind == "tcp") {
        GPortRef port = vexa::GServerSocketDevice::EnumeratePorts(GPortRef::kHostPort).front();
        if (argc > 2) port.SetPort(static_cast<std::uint16_t>(std::atoi(argv[2])));
        auto device = std::make_unique<vexa::GServerSocketDevice>(&port);
        device->SetConnectionReport([](bool here) { vexa::SetHostConnected(here, nullptr); });
        return device;
    }
    if (kind != "usb") return nullptr;
    const auto ports = vexa::GServerUSBBulkDevice::EnumeratePorts(GPortRef::kHostPort);
    return std::make_unique<vexa::GServerUSBBulkDevice>(&ports.front());
}

}  // namespace

int main(int argc, char** argv) {
    static vexa::HostLinkState link;
    static vexa::DAQIO daq;
    static vexa::AppSessions sessions;
    static vexa::HostMux mux(daq, sessions);

    auto device = MakeDevice(argc > 1 ? argv[1] : "", argc, argv);
    if (!device) {
        std::fprintf(stderr, "usage: transports usb | serial PATH [BAUD] | tcp [PORT]\n");
        return 2;
    }
    std::signal(SIGINT, [](int) { stop = true; });
    std::signal(SIGTERM, [](int) { stop = true; });
    vexa::SetTraceThreshold(1);
    mux.Init(VEXA_Init());
    vexa::HostVEXMuxController_Init(mux.Children());
    vexa::HostLink_Use(&link);
    const vexa::GPortRef port = device->portRef;
    if (vexa::HostLink_OpenDevice(std::move(device), port) == 1 && mux.MarkConnected()) {
        while (!stop) {
            vexa::HostLink_TakeInput();
            mux.Pass();
            if (vexa::HostLink_BytesAvailable() == 0) vexa::OSSleep(10);
        }
    }
    mux.DisconnectCleanUp();
    vexa::HostLink_Close();
    daq.Close();
    return stop ? 0 : 1;
}
