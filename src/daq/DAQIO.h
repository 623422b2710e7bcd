// The link to the unit's acquisition board, the DAQ: a stream of the device-access library. Once
// the board has answered the initial sync, packets pass both ways unchanged.
//
// Threads: everything belongs to the main thread but ReadCallback, which the library calls on a
// thread of its own. The object must stay where it is while the link is open: the library knows its
// address.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>

#include "mux/MuxRing.h"
#include "mux/Packet.h"

namespace vexa {

class DAQIO {
  public:
    DAQIO() = default;
    DAQIO(const DAQIO&) = delete;
    DAQIO& operator=(const DAQIO&) = delete;

    // The library handle for all calls; given before the first Open.
    void UseLibrary(std::uint32_t library_) { library = library_; }

    [[nodiscard]] bool IsOpen() const { return stream != 0; }

    // Opens a stream to the first board found and synchronises with it; waits up to 500 ms for its
    // answer. True when the link is open, also when it was already. On failure it is closed.
    bool Open();

    // Sends `length` bytes to the board. Returns `length`, or 0 when the link is closed or the
    // library fails.
    int Write(const std::uint8_t* data, int length);

    // Closes the stream and resets the board by opening and closing it plainly. Always true.
    bool Close();

    // Takes `count` bytes from the board; `record` is the DAQIO. Always 0. Library thread.
    static std::int32_t ReadCallback(const std::uint8_t* data, std::int32_t count, void* record);

    // Hex dumps "DAQ Input - label: ..." and "DAQ Output - label: ...", for diagnosis.
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
    void Take(std::span<const std::uint8_t> data);
    std::size_t ScanForSync(std::span<const std::uint8_t> chunk);
    [[nodiscard]] bool RingEndsInSyncAnswer() const;
    std::size_t AssemblePacket(std::span<const std::uint8_t> chunk);
    void CheckPacket();

    // The record, cleared at every open. Guarded by `recordMutex`, `synced` apart: a library that
    // calls back late, after its stream was closed, must not meet the next open half way.
    std::mutex recordMutex;
    std::array<std::uint8_t, kPacketBufferSize> packet{};  // being assembled
    std::array<std::uint8_t, kSyncRingSize> syncRingStorage{};
    std::array<std::uint8_t, kHeaderBytes> lastGoodHeader{};
    std::uint16_t lastGoodWord = 0;  // bytes 8 and 9 of that packet, little-endian
    MuxRing syncRing;
    std::atomic<std::uint32_t> synced{0};
    std::uint32_t assembledCount = 0;
    std::uint32_t errorCount = 0;
    std::uint8_t initSequence = 0;
    std::uint8_t errorFlag = 0;

    std::uint32_t stream = 0;  // the link is open when non-zero
    std::uint32_t library = 0;
};

}  // namespace vexa
