#include <fcntl.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include "devices/GServerUSBBulkDevice.h"
#include "foundation/GUtils.h"
#include "protocol/FrameHeader.h"
#include "zt_usb.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GServerUSBBulkDevice_Linux";
constexpr int kOpenFailedLine = 312;
constexpr int kCloseFailedLine = 243;
constexpr int kCloseGuardLine = 334;
constexpr int kWriteGuardLine = 381;
constexpr int kWriteFailedLine = 431;
constexpr int kLinkQueryFailedLine = 482;
constexpr int kCableLine = 490;

constexpr std::uint32_t kLinkPollMs = 500;

struct USBBulkOSData : NodeRecord {
    bool Open(const GPortRef& port) override { return OpenNode(port.location, O_RDWR | O_EXCL); }
};

void TraceErrno(const char* text, int line) {
    Trace(kTraceLevel, text + std::to_string(errno), kModule, line);
}

}  // namespace

GServerUSBBulkDevice::GServerUSBBulkDevice(const GPortRef* port)
    // The text for a failed close is the same as the serial transport's, on purpose.
    : GTransportDevice(port, {kModule, kOpenFailedLine, "Error closing serial device",
                              kCloseFailedLine, kCloseGuardLine, kWriteGuardLine}) {
    if (!GServerUSBBulkDevice::OSInitialize()) {  // GCOVR_EXCL_BR_LINE: cannot fail
        Trace("Error - GServerUSBBulkDevice constructor, OSInitialize() returned false.", nullptr,
              -1);
    }
}

GServerUSBBulkDevice::~GServerUSBBulkDevice() {
    if (isOpen) GDeviceIO::Close();
    GTransportDevice::OSUninitialize();
}

std::vector<GPortRef> GServerUSBBulkDevice::EnumeratePorts(std::int32_t portType) {
    if (portType != GPortRef::kHostPort) return {};
    return {GPortRef(GPortRef::kUSBBulk, ZT_USB_NODE, ZT_USB_NODE, ZT_USB_NODE, 0, 0)};
}

bool GServerUSBBulkDevice::OSInitialize() {
    SetRecord(std::make_shared<USBBulkOSData>());
    return true;
}

int GServerUSBBulkDevice::OSOpen(const GPortRef* port) {
    const int result = GTransportDevice::OSOpen(port);
    if (result == 0) UpdateLinkStatus();
    return result;
}

int GServerUSBBulkDevice::UpdateLinkStatus() {
    const auto* record = static_cast<const USBBulkOSData*>(Record());
    const int descriptor = record != nullptr ? record->descriptor.load() : -1;
    if (descriptor == -1) return -1;

    const std::uint32_t now = OSGetMilliseconds();
    if (now - lastLinkPollMs <= kLinkPollMs) return 0;
    lastLinkPollMs = now;

    int pluggedIn = 0;
    if (ioctl(descriptor, ZTG_LINK_STATUS, &pluggedIn) == -1) {
        TraceErrno("ioctl(ZTG_LINK_STATUS) failed. errno = ", kLinkQueryFailedLine);
        return -1;
    }
    if (linkUp != (pluggedIn != 0)) {
        // The line first: the main thread prints lines of its own as soon as it sees the change.
        Trace(kTraceLevel,
              pluggedIn != 0 ? "USB gadget cable is plugged in." : "USB gadget cable is unplugged.",
              kModule, kCableLine);
        linkUp = pluggedIn != 0;
    }
    return 0;
}

int GServerUSBBulkDevice::OSWriteUnlocked(const void* data, int* count) {
    const int asked = *count;
    *count = 0;
    TransportRecord* record = Record();
    if (record == nullptr || !record->CanWrite() || asked > static_cast<int>(kMaxFramePayload))
        return -1;
    if (asked == 0) return 0;

    std::array<std::uint8_t, kFrameHeaderSize> header{};
    BuildFrameHeader(header, static_cast<std::uint32_t>(asked));
    if (record->Write(header.data(), kFrameHeaderSize) != kFrameHeaderSize) return -1;
    const ssize_t written = record->Write(data, asked);
    if (written < 0) TraceErrno("USB write failed. errno = ", kWriteFailedLine);
    if (written != asked) return -1;
    *count = asked;
    return 0;
}

}  // namespace vexa
