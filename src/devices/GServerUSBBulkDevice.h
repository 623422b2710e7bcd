// The host link that the service uses: the unit's USB gadget bulk node. It senses the cable, and
// puts a frame header (protocol/FrameHeader.h) before each chunk that the writer thread sends.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "devices/GTransportDevice.h"

namespace vexa {

class GServerUSBBulkDevice : public GTransportDevice {
  public:
    explicit GServerUSBBulkDevice(const GPortRef* port);
    ~GServerUSBBulkDevice() override;

    // The ports of a kind: for GPortRef::kHostPort the one gadget node, else none.
    static std::vector<GPortRef> EnumeratePorts(std::int32_t portType);

    bool OSInitialize() override;
    int OSOpen(const GPortRef* port) override;

    // Asks the driver for the cable's state, at most once in 500 ms, and updates linkUp. -1 when
    // there is no node or the driver fails; linkUp then keeps its value.
    int UpdateLinkStatus() override;

    // Writes one frame: the header, then the payload, with a system call each; nothing for 0 bytes.
    // -1, with `*count` 0, for more than 30000 bytes and when either write fails or is short.
    // Nothing is retried.
    int OSWriteUnlocked(const void* data, int* count) override;

  private:
    std::atomic<std::uint32_t> lastLinkPollMs{0};  // owner in OSOpen, then the writer thread
};

}  // namespace vexa
