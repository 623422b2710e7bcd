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
        auto device = std::make_unique<GDeviceIO>(&port);
        device->bufferedOutput = true;
        device->outputLock.reset(new CeilingMutex{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))});
        device->outputBuffer = std::make_unique<GCircularBuffer>(50000);
        device->outputBuffer->lock = device->outputLock.get();
        device->isOpen = true;
        device->linkUp = true;
        const ExclusiveLock gate(state.deviceGate);
        state.device = std::move(device);
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

    // Unchecked: only the test's own thread sets the device.
    GDeviceIO& Device() VEXA_UNCHECKED { return *state.device; }

    // All that the service has sent since the last call.
    Bytes TakeBytes() {
        Bytes bytes(50000);
        bytes.resize(static_cast<std::size_t>(Device().outputBuffer->Read(bytes.data(), 50000)));
        return bytes;
    }
    std::string Take() { return ToHex(TakeBytes()); }

    HostLinkState state;
};

}  // namespace vexa::test
