#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <sstream>
#include <string>

#include "devices/GServerUSBBulkDevice.h"
#include "devices/ReaderThread.h"
#include "foundation/GUtils.h"
#include "mux/Packet.h"
#include "zt_usb.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GServerUSBBulkDevice_Linux";
constexpr int kOpenFailedLine = 312;
constexpr int kCloseFailedLine = 243;
constexpr int kWriteFailedLine = 431;
constexpr int kLinkQueryFailedLine = 482;
constexpr int kCableLine = 490;
constexpr int kCloseGuardLine = 334;
constexpr int kWriteGuardLine = 381;

constexpr std::size_t kReadChunk = 3000;
constexpr std::uint32_t kLinkPollMs = 500;

constexpr std::size_t kFrameHeaderSize = 8;
constexpr std::array<std::uint8_t, 4> kFrameMark = {'U', '0', '1', '2'};
constexpr int kMaxFramePayload = 30000;

// The private record behind osData.
struct USBBulkOSData {
    std::string devicePath;
    ReaderThread reader;
    std::atomic<int> descriptor{-1};  // set and closed by the owner; read by reader and writer
    int threadPriority = 4;           // recorded only
    GReadCallback readCallback = nullptr;
    void* callbackContext = nullptr;
};

void USBReadThread(void* record) {
    auto* data = static_cast<USBBulkOSData*>(record);
    std::array<unsigned char, kReadChunk> chunk;  // filled as far as it is read
    while (!data->reader.StopRequested()) {
        const ssize_t count = read(data->descriptor, chunk.data(), chunk.size());
        if (count <= 0 || data->readCallback == nullptr || data->reader.GivenUp()) continue;
        data->readCallback(chunk.data(), static_cast<int>(count), data->callbackContext);
    }
}

int CloseUSBDevice(USBBulkOSData& data) {
    const int result = data.reader.Stop() ? 0 : -1;
    const int descriptor = data.descriptor.exchange(-1);
    if (descriptor != -1) close(descriptor);
    data.devicePath.clear();
    if (result == -1) {
        // The text is the serial transport's, on purpose.
        Trace(kTraceLevel, "Error closing serial device", kModule, kCloseFailedLine);
    }
    return result;
}

int OpenUSBDevice(const std::shared_ptr<USBBulkOSData>& data, const std::string& path, int priority,
                  GReadCallback callback, void* context) {
    if (data->descriptor != -1) CloseUSBDevice(*data);
    data->devicePath = path;
    data->threadPriority = priority;
    data->readCallback = callback;
    data->callbackContext = context;
    if (callback == nullptr || context == nullptr) {
        CloseUSBDevice(*data);
        return -1;
    }
    data->descriptor = open(path.c_str(), O_RDWR | O_EXCL);
    if (data->descriptor < 0) {
        CloseUSBDevice(*data);
        return -1;
    }
    OSRegisterIOAbortSignal(IO_ABORT_SIGNAL);
    data->reader.Start(USBReadThread, data);
    return 0;
}

USBBulkOSData* Record(const std::shared_ptr<void>& osData) {
    return static_cast<USBBulkOSData*>(osData.get());
}

void TraceErrno(const char* text, int line) {
    const int error = errno;
    std::ostringstream message;
    message << text << error;
    Trace(kTraceLevel, message.str(), kModule, line);
}

}  // namespace

GServerUSBBulkDevice::GServerUSBBulkDevice(const GPortRef* port) : GDeviceIO(port) {
    if (!GServerUSBBulkDevice::OSInitialize()) {
        Trace("Error - GServerUSBBulkDevice constructor, OSInitialize() returned false.", nullptr,
              -1);
    }
}

GServerUSBBulkDevice::~GServerUSBBulkDevice() {
    if (isOpen) GDeviceIO::Close();
    GServerUSBBulkDevice::OSUninitialize();
}

std::vector<GPortRef> GServerUSBBulkDevice::EnumeratePorts(std::int32_t portType) {
    if (portType != GPortRef::kHostPort) return {};
    return {GPortRef(GPortRef::kUSBBulk, ZT_USB_NODE, ZT_USB_NODE, ZT_USB_NODE, 0, 0)};
}

bool GServerUSBBulkDevice::OSInitialize() {
    osData = std::make_shared<USBBulkOSData>();
    return true;
}

void GServerUSBBulkDevice::OSUninitialize() {
    USBBulkOSData* data = Record(osData);
    if (data == nullptr) return;
    if (data->descriptor != -1) CloseUSBDevice(*data);
    osData.reset();
}

int GServerUSBBulkDevice::OSOpen(const GPortRef* /*port*/) {
    if (!osData) return -1;
    bool entered = false;  // a refused guard is not reported
    const int result = Guarded({kModule, 0, 0}, -1, [&] {
        entered = true;
        const int opened =
            OpenUSBDevice(std::static_pointer_cast<USBBulkOSData>(osData), portRef.location,
                          threadPriority, readCallback, readContext);
        if (opened == 0) UpdateLinkStatus();
        return opened;
    });
    if (entered && result == -1) {
        Trace(kTraceLevel, "Error opening device with id " + portRef.displayName, kModule,
              kOpenFailedLine);
    }
    return result;
}

int GServerUSBBulkDevice::OSClose() {
    USBBulkOSData* data = Record(osData);
    if (data == nullptr) return -1;
    return Guarded({kModule, 0, kCloseGuardLine}, -1, [&] { return CloseUSBDevice(*data); });
}

int GServerUSBBulkDevice::OSQuery() { return 0; }

int GServerUSBBulkDevice::OSRead(std::intptr_t /*a*/, std::intptr_t /*b*/, std::intptr_t /*c*/) {
    return -1;
}

int GServerUSBBulkDevice::OSWrite(const void* data, int* count) {
    const USBBulkOSData* record = Record(osData);
    if (record == nullptr) return -1;
    return Guarded({kModule, 0, kWriteGuardLine}, -1, [&] {
        const int descriptor = record->descriptor;
        if (descriptor == -1) return -1;
        const int asked = *count;
        *count = static_cast<int>(write(descriptor, data, static_cast<std::size_t>(asked)));
        return *count == asked ? 0 : -1;
    });
}

int GServerUSBBulkDevice::OSPurge() { return -1; }

int GServerUSBBulkDevice::UpdateLinkStatus() {
    const USBBulkOSData* record = Record(osData);
    if (record == nullptr) return -1;
    const int descriptor = record->descriptor;
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
        linkUp = pluggedIn != 0;
        Trace(kTraceLevel,
              pluggedIn != 0 ? "USB gadget cable is plugged in." : "USB gadget cable is unplugged.",
              kModule, kCableLine);
    }
    return 0;
}

int GServerUSBBulkDevice::OSWriteUnlocked(const void* data, int* count) {
    const int asked = *count;
    *count = 0;
    const USBBulkOSData* record = Record(osData);
    if (record == nullptr) return -1;
    const int descriptor = record->descriptor;
    if (descriptor == -1 || asked > kMaxFramePayload) return -1;
    if (asked == 0) return 0;

    std::array<std::uint8_t, kFrameHeaderSize> header{};
    StoreLe32(header.data(), static_cast<std::uint32_t>(asked));
    std::copy(kFrameMark.begin(), kFrameMark.end(), header.begin() + sizeof(std::uint32_t));
    if (write(descriptor, header.data(), header.size()) != static_cast<ssize_t>(header.size())) {
        return -1;
    }
    const ssize_t written = write(descriptor, data, static_cast<std::size_t>(asked));
    if (written < 0) TraceErrno("USB write failed. errno = ", kWriteFailedLine);
    if (written != asked) return -1;
    *count = asked;
    return 0;
}

}  // namespace vexa
