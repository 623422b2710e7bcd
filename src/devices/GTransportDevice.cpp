#include "devices/GTransportDevice.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

#include "foundation/GUtils.h"

namespace vexa {

void CloseOnExec(int descriptor) { fcntl(descriptor, F_SETFD, FD_CLOEXEC); }

void TransportRecord::Deliver(const unsigned char* data, ssize_t count) const {
    // A reader that was given up must not deliver: the callback's context may no longer exist.
    if (readCallback == nullptr || reader.GivenUp()) return;
    readCallback(data, static_cast<int>(count), callbackContext);
}

bool NodeRecord::OpenNode(const std::string& path, int flags) {
    devicePath = path;
    descriptor = open(path.c_str(), flags);
    if (descriptor != -1) CloseOnExec(descriptor);
    return descriptor != -1;
}

void NodeRecord::Close() {
    const int open = descriptor.exchange(-1);
    if (open != -1) close(open);
    devicePath.clear();
}

void NodeRecord::Read() {
    std::array<unsigned char, kReadChunk> chunk;  // only the bytes read are ever set
    while (!reader.StopRequested()) {
        const ssize_t count = read(descriptor, chunk.data(), chunk.size());
        if (count > 0) Deliver(chunk.data(), count);
    }
}

ssize_t NodeRecord::Write(const void* data, int count) {
    return write(descriptor, data, static_cast<std::size_t>(count));
}

int GTransportDevice::OSOpen(const GPortRef* /*port*/) {
    if (!osData) return -1;
    bool entered = false;  // a refused guard is not reported
    const int result = Guarded({reports.module, 0, 0}, -1, [&] {
        entered = true;
        return OpenRecord();
    });
    if (entered && result == -1) {
        Trace(kTraceLevel, "Error opening device with id " + portRef.displayName, reports.module,
              reports.openFailedLine);
    }
    return result;
}

int GTransportDevice::OpenRecord() {
    TransportRecord& record = *Record();
    if (record.IsOpen()) CloseRecord();
    record.threadPriority = threadPriority;
    record.readCallback = readCallback;
    record.callbackContext = readContext;
    if (readCallback == nullptr || readContext == nullptr || !record.Open(portRef)) {
        CloseRecord();
        return -1;
    }
    OSRegisterIOAbortSignal(IO_ABORT_SIGNAL);
    record.reader.Start([](void* shared) { static_cast<TransportRecord*>(shared)->Read(); },
                        osData);
    return 0;
}

int GTransportDevice::CloseRecord() {
    const bool stopped = Record()->reader.Stop();
    Record()->Close();
    if (stopped) return 0;
    Trace(kTraceLevel, reports.closeFailedText, reports.module, reports.closeFailedLine);
    return -1;
}

int GTransportDevice::OSClose() {
    if (!osData) return -1;
    return Guarded({reports.module, 0, reports.closeGuardLine}, -1, [&] { return CloseRecord(); });
}

void GTransportDevice::OSUninitialize() {
    if (!osData) return;
    if (Record()->IsOpen()) CloseRecord();
    osData.reset();
}

int GTransportDevice::OSWrite(const void* data, int* count) {
    if (!osData) return -1;
    return Guarded({reports.module, 0, reports.writeGuardLine}, -1,
                   [&] { return GTransportDevice::OSWriteUnlocked(data, count); });
}

int GTransportDevice::OSWriteUnlocked(const void* data, int* count) {
    TransportRecord* record = Record();
    if (record == nullptr || !record->CanWrite()) return -1;
    const int asked = *count;
    *count = static_cast<int>(record->Write(data, asked));
    return *count == asked ? 0 : -1;
}

int GTransportDevice::OSQuery() { return 0; }

int GTransportDevice::OSRead(std::intptr_t /*a*/, std::intptr_t /*b*/, std::intptr_t /*c*/) {
    return -1;
}

int GTransportDevice::OSPurge() { return -1; }

}  // namespace vexa
