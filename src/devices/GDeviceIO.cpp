#include "devices/GDeviceIO.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "foundation/GUtils.h"
#include "text/ReplaceAll.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GDeviceIO";
constexpr int kNullPortLine = 24;
constexpr int kDestructorUnlockLine = 60;

constexpr int kSingleTryMs = 1;
constexpr int kWriterPriority = 3;
// How long a close waits for a write in progress before it interrupts it, as long as it waits for
// the reader. Interrupted, the rest of that write is lost.
constexpr std::uint32_t kWriterGraceMs = 2000;
constexpr std::int32_t kSignalledChunk = 5000;
constexpr std::int32_t kPollingChunk = 10000;

}  // namespace

GDeviceIO::GDeviceIO(const GPortRef* port)
    : portRef(port != nullptr ? *port : GPortRef(0, "", "", "", 0, 0)),
      deviceMutex(OSCreateMutex(ReplaceAll("DeviceMutex" + portRef.location, "\\", ""))),
      mutexHeld(deviceMutex != nullptr && OSLockMutex(deviceMutex.get(), kSingleTryMs)) {
    OSAssert(port != nullptr ? 1 : 0, kModule, kNullPortLine);
}

GDeviceIO::~GDeviceIO() {
    if (isOpen) GDeviceIO::Close();
    if (mutexHeld)
        OSAssert(OSUnlockMutex(deviceMutex.get()) ? 1 : 0, kModule, kDestructorUnlockLine);
}

bool GDeviceIO::EnterGuard(const GuardReport& report) {
    const bool locked = deviceMutex != nullptr && OSLockMutex(deviceMutex.get(), kSingleTryMs);
    if (locked && mutexHeld) return true;
    if (report.lockFailedLine != 0) OSAssert(0, report.module, report.lockFailedLine);
    return false;
}

void GDeviceIO::LeaveGuard(const GuardReport& report) {
    // The thread holds the mutex, so it can unlock it.
    const bool unlocked = OSUnlockMutex(deviceMutex.get());
    if (!unlocked && report.unlockFailedLine != 0) {  // GCOVR_EXCL_BR_LINE
        OSAssert(0, report.module, report.unlockFailedLine);
    }
}

// Each guard below names two lines for its reports: of a failed unlock, then of a failed lock.

int GDeviceIO::Open(const GPortRef* port) {
    return Guarded({kModule, 279, 282}, 0, [&] {
        const int result = OSOpen(port);
        if (result != 0) return result;
        if (bufferedOutput && !outputBuffer && !StartWriter()) {
            Close();
            return -1;
        }
        isOpen = true;
        return result;
    });
}

bool GDeviceIO::StartWriter() {
    outputLock.reset(new CeilingMutex{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))});
    if (!outputLock->mutex) return false;
    outputBuffer = std::make_unique<GCircularBuffer>(outputBufferCapacity);
    outputBuffer->lock = outputLock.get();
    if (!signalledWriter) {
        pollingWriter = std::make_unique<GThread>(PollingWriter, nullptr, nullptr, nullptr, nullptr,
                                                  this, 0, false);
        return pollingWriter->Start(kWriterPriority);
    }
    writerSemaphore.reset(OSCreateSemaphore());
    if (!writerSemaphore) return false;
    signalledWriterThread =
        std::make_unique<GLiteThread>(SignalledWriter, StopSignalledWriter, this);
    return signalledWriterThread->Start(kWriterPriority);
}

int GDeviceIO::Close() {
    return Guarded({kModule, 317, 320}, 0, [&] {
        // A host that reads nothing must not keep the device from closing.
        OSRegisterIOAbortSignal(IO_ABORT_SIGNAL);
        if (pollingWriter) pollingWriter->StopBlocked(kWriterGraceMs);
        pollingWriter.reset();
        if (signalledWriterThread) signalledWriterThread->StopBlocked(kWriterGraceMs);
        signalledWriterThread.reset();
        outputBuffer.reset();
        outputLock.reset();
        writerSemaphore.reset();
        // In the destructor this is the base's own hook: the transport has closed itself by then.
        const int result = OSClose();  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
        if (result == 0) isOpen = false;
        return result;
    });
}

int GDeviceIO::Query() {
    return Guarded({kModule, 333, 336}, 0, [&] { return OSQuery(); });
}

int GDeviceIO::Read(std::intptr_t a, std::intptr_t b, std::intptr_t c) {
    return Guarded({kModule, 349, 352}, 0, [&] { return OSRead(a, b, c); });
}

int GDeviceIO::Write(const void* data, int* count) {
    return Guarded({kModule, 375, 378}, 0, [&] {
        return bufferedOutput && outputBuffer ? QueueOutput(data, *count) : OSWrite(data, count);
    });
}

int GDeviceIO::WriteString(const char* text) {
    return Guarded({kModule, 136, 139}, 0, [&] {
        int count = static_cast<int>(std::strlen(text));
        return Write(text, &count);
    });
}

int GDeviceIO::Purge() {
    return Guarded({kModule, 394, 397}, 0, [&] {
        if (outputBuffer) outputBuffer->Clear();
        return OSPurge();
    });
}

int GDeviceIO::QueueWrite(const void* data, int* count) {
    if (bufferedOutput) return outputBuffer ? QueueOutput(data, *count) : -1;
    return outputBuffer ? -1 : Write(data, count);
}

int GDeviceIO::QueueOutput(const void* data, int count) {
    const int taken = outputBuffer->Write(static_cast<const unsigned char*>(data), count);
    if (writerSemaphore) OSPostSemaphore(writerSemaphore.get());
    return taken != 0 ? 0 : -1;
}

std::int32_t GDeviceIO::PollingWriter(void* device) {
    auto* self = static_cast<GDeviceIO*>(device);
    if (!self->outputBuffer) return 0;
    self->UpdateLinkStatus();
    if (!self->linkUp) return 0;

    std::array<unsigned char, kPollingChunk> chunk;  // only the bytes read are ever set
    const std::int32_t waiting = self->outputBuffer->GetBytesAvailable();
    if (waiting < 1) return 0;
    int count = self->outputBuffer->Read(chunk.data(), std::min(waiting, kPollingChunk));
    if (count >= 1) self->OSWriteUnlocked(chunk.data(), &count);
    return 0;
}

std::int32_t GDeviceIO::SignalledWriter(void* device) {
    auto* self = static_cast<GDeviceIO*>(device);
    if (!self->outputBuffer || !self->writerSemaphore) return -1;

    std::array<unsigned char, kSignalledChunk> chunk;  // only the bytes read are ever set
    for (;;) {
        OSWaitSemaphore(self->writerSemaphore.get());
        if (!self->bufferedOutput) return 0;
        for (;;) {
            const std::int32_t waiting = self->outputBuffer->GetBytesAvailable();
            if (waiting < 1) break;
            int count = self->outputBuffer->Read(chunk.data(), std::min(waiting, kSignalledChunk));
            if (count > 0) self->OSWriteUnlocked(chunk.data(), &count);
            // A yield point that consumes its own post.
            OSPostSemaphore(self->writerSemaphore.get());
            OSWaitSemaphore(self->writerSemaphore.get());
            if (!self->bufferedOutput) return 0;
        }
    }
}

std::int32_t GDeviceIO::StopSignalledWriter(void* device) {
    auto* self = static_cast<GDeviceIO*>(device);
    if (!self->writerSemaphore) return -1;
    self->bufferedOutput = false;
    OSPostSemaphore(self->writerSemaphore.get());
    return 0;
}

// What the base does for a transport that overrides nothing.
bool GDeviceIO::OSInitialize() { return true; }
void GDeviceIO::OSUninitialize() {}
int GDeviceIO::OSOpen(const GPortRef* /*port*/) { return 0; }
int GDeviceIO::OSClose() { return 0; }
int GDeviceIO::OSQuery() { return 0; }
int GDeviceIO::OSRead(std::intptr_t /*a*/, std::intptr_t /*b*/, std::intptr_t /*c*/) { return 0; }
int GDeviceIO::OSWrite(const void* /*data*/, int* /*count*/) { return 0; }
int GDeviceIO::OSPurge() { return -1; }
bool GDeviceIO::IsServer() { return true; }
int GDeviceIO::OSWriteUnlocked(const void* /*data*/, int* /*count*/) { return -1; }

int GDeviceIO::UpdateLinkStatus() {
    linkUp = isOpen.load();
    return 0;
}

int GDeviceIO::SetReadCallback(GReadCallback callback, void* context) {
    readCallback = callback;
    readContext = context;
    return 0;
}

int GDeviceIO::SetThreadPriority(int priority) {
    threadPriority = priority;
    return priority;
}

}  // namespace vexa
