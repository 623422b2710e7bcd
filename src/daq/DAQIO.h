// The link to the unit's acquisition board, the DAQ: a stream of the device-access library. Once
// the board has answered the initial sync, packets pass both ways unchanged.
//
// Main thread only, except ReadCallback, which runs on a library thread. The object must not move
// while the link is open: the library knows its address.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>

#include "foundation/Mutex.h"
#include "mux/MuxRing.h"
#include "protocol/Packet.h"

namespace vexa {

class DAQIO {
  public:
    // `library_` is the library handle for all calls; its value may be set later, before the first
    // Open.
    explicit DAQIO(const std::uint32_t& library_) : library(library_) {}
    DAQIO(const DAQIO&) = delete;
    DAQIO& operator=(const DAQIO&) = delete;

    [[nodiscard]] bool IsOpen() const { return stream != 0; }

    // Opens a stream to the first board found and synchronises with it; waits up to 500 ms for its
    // answer. True when the link is open now, also when it was open before. On failure the stream
    // is closed again.
    bool Open();

    // Sends `length` bytes to the board. Returns `length`, or 0 when the link is closed or the
    // library fails.
    int Write(const std::uint8_t* data, int length);

    // Closes the stream and resets the board by opening and closing it plainly. Always true.
    bool Close();

    // Receives `count` bytes of the board; `record` is the DAQIO. Always 0. Library thread.
    static std::int32_t ReadCallback(const std::uint8_t* data, std::int32_t count,
                                     void* record) noexcept;

    // Hex dumps "DAQ Input - label: ..." and "DAQ Output - label: ...". The service has no caller.
    static void DumpInput(const std::uint8_t* data, int count, const char* label);
    static void DumpOutput(const std::uint8_t* data, int count, const char* label);

  private:
    static constexpr std::size_t kSyncRingSize = 100;
    static constexpr std::size_t kHeaderBytes = 8;  // of a packet, as far as the log shows them

    void ClearRecord();
    bool OpenStream();
    bool SendInitialSync();
    bool WaitForSync();
    void ResetBoard(const char* name);
    void Receive(std::span<const std::uint8_t> data);
    std::size_t ScanForSync(std::span<const std::uint8_t> chunk) VEXA_REQUIRES(recordMutex);
    [[nodiscard]] bool RingEndsInSyncAnswer() const VEXA_REQUIRES(recordMutex);
    std::size_t AssemblePacket(std::span<const std::uint8_t> chunk) VEXA_REQUIRES(recordMutex);
    void CheckPacket() VEXA_REQUIRES(recordMutex);

    const std::uint32_t& library;
    std::uint32_t stream = 0;  // the link is open when non-zero

    // The record, cleared at every open. It has a mutex because a library may call back late, after
    // its stream was closed, while the next open clears the record.
    Mutex recordMutex;
    std::array<std::uint8_t, kPacketBufferSize> packet VEXA_GUARDED_BY(recordMutex){};
    std::array<std::uint8_t, kSyncRingSize> syncRingStorage VEXA_GUARDED_BY(recordMutex){};
    std::array<std::uint8_t, kHeaderBytes> lastGoodHeader VEXA_GUARDED_BY(recordMutex){};
    // Bytes 8 and 9 of that packet, little-endian.
    std::uint16_t lastGoodWord VEXA_GUARDED_BY(recordMutex) = 0;
    MuxRing syncRing VEXA_GUARDED_BY(recordMutex);
    std::atomic<std::uint32_t> synced{0};  // the opener polls it
    std::uint32_t assembledCount VEXA_GUARDED_BY(recordMutex) = 0;
    std::uint32_t errorCount VEXA_GUARDED_BY(recordMutex) = 0;
    std::uint8_t initSequence VEXA_GUARDED_BY(recordMutex) = 0;
    std::uint8_t errorFlag VEXA_GUARDED_BY(recordMutex) = 0;
};

}  // namespace vexa
