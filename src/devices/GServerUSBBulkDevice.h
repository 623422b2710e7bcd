// The host link that the service uses: the unit's USB gadget bulk node. Senses the cable, and
// frames what the writer thread sends:
//
//   0                 4                 8
//  +-----------------+-----------------+-----------------
//  | payload length  | 'U' '0' '1' '2' | payload          length 32-bit little-endian, 1 .. 30000
//  +-----------------+-----------------+-----------------
//
// Threads: as GDeviceIO. A device object serves one open: opened again after a close it opens the
// node, but no longer reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "devices/GDeviceIO.h"

namespace vexa {

class GServerUSBBulkDevice : public GDeviceIO {
  public:
    explicit GServerUSBBulkDevice(const GPortRef* port);
    ~GServerUSBBulkDevice() override;

    // The ports of a kind: for GPortRef::kHostPort the one gadget node, else none.
    static std::vector<GPortRef> EnumeratePorts(std::int32_t portType);

    bool OSInitialize() override;
    void OSUninitialize() override;

    // Opens the node that the device's own port reference names (the argument is ignored) and
    // starts the reader, which needs a read callback and a context. A reader that cannot be started
    // is no failure: the node is open and nobody reads it.
    int OSOpen(const GPortRef* port) override;

    // -1 when the reader did not end within about 2 s; the node is closed all the same.
    int OSClose() override;
    int OSQuery() override;
    int OSRead(std::intptr_t a, std::intptr_t b, std::intptr_t c) override;

    // One write of the bytes as they are, without a frame header.
    int OSWrite(const void* data, int* count) override;
    int OSPurge() override;

    // Asks the driver for the cable's state, at most once in 500 ms, and keeps linkUp in step.
    // -1 when there is no node or the driver fails; linkUp then keeps its value.
    int UpdateLinkStatus() override;

    // One frame: header and payload, a write each; nothing for 0 bytes. -1, with `*count` 0, for
    // more than 30000 bytes and when either write fails or is short; nothing is retried.
    int OSWriteUnlocked(const void* data, int* count) override;

  private:
    std::atomic<std::uint32_t> lastLinkPollMs{0};  // owner in OSOpen, then the writer thread
};

}  // namespace vexa
