// A host link without a transport: what the service sends stays in the device's output buffer,
// where a test finds it at once; what the host sends is put straight into the host ring.
#pragma once

#include <memory>

#include "devices/HostLink.h"
#include "support/Bytes.h"

namespace vexa::test {

class QueuedHostLink {
  public:
    QueuedHostLink() {
        const GPortRef port(GPortRef::kUSBBulk, "queued", "", "queued", 0, 0);
        state.hostRing.Init(state.hostRingStorage.data(), kHostBufferSize);
        state.device = std::make_unique<GDeviceIO>(&port);
        state.device->bufferedOutput = true;
        state.device->outputLock.reset(
            new CeilingMutex{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))});
        state.device->outputBuffer = std::make_unique<GCircularBuffer>(50000);
        state.device->outputBuffer->lock = state.device->outputLock.get();
        state.device->isOpen = true;
        state.device->linkUp = true;
        HostLink_Use(&state);
    }
    ~QueuedHostLink() {
        HostLink_Close();
        HostLink_Use(nullptr);
    }
    QueuedHostLink(const QueuedHostLink&) = delete;
    QueuedHostLink& operator=(const QueuedHostLink&) = delete;

    void HostSends(const Bytes& bytes) {
        state.hostRing.WriteBlock(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    }

    // All that the service has sent since the last look.
    Bytes TakeBytes() {
        Bytes bytes(50000);
        bytes.resize(
            static_cast<std::size_t>(state.device->outputBuffer->Read(bytes.data(), 50000)));
        return bytes;
    }
    std::string Take() { return ToHex(TakeBytes()); }

    HostLinkState state;
};

}  // namespace vexa::test
