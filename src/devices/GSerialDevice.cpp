#include "devices/GSerialDevice.h"

#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GSerialDevice";
constexpr int kInitializeFailedLine = 18;
constexpr int kNullPortLine = 43;

// The Linux half's reports.
constexpr char kLinuxModule[] = "GSerialDevice_Linux";
constexpr int kCloseFailedLine = 241;
constexpr int kOpenFailedLine = 311;
constexpr int kCloseGuardLine = 332;
constexpr int kWriteGuardLine = 379;

}  // namespace

GSerialDevice::GSerialDevice(const GPortRef* port)
    : GTransportDevice(port, {kLinuxModule, kOpenFailedLine, "Error closing serial device",
                              kCloseFailedLine, kCloseGuardLine, kWriteGuardLine}) {
    if (!GSerialDevice::OSInitialize()) {  // GCOVR_EXCL_BR_LINE: cannot fail
        Trace(kTraceLevel, "OSInitialize() returned false.", kModule, kInitializeFailedLine);
    }
}

GSerialDevice::~GSerialDevice() {
    if (isOpen) GDeviceIO::Close();
    GTransportDevice::OSUninitialize();
}

std::string GSerialDevice::GetDefaultPortName() { return "COM1"; }

int GSerialDevice::Open(const GPortRef* port) {
    if (port == nullptr) port = &portRef;
    if (port == nullptr) {  // GCOVR_EXCL_BR_LINE: its own is there
        Trace(kTraceLevel, "Open received with NULL port string", kModule, kNullPortLine);
        return -1;
    }
    const int result = GDeviceIO::Open(port);
    if (result == 0) OSPurge();
    return result;
}

bool GSerialDevice::IsServer() { return false; }

}  // namespace vexa
