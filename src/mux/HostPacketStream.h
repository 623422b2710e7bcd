// Cuts the host's byte stream into packets, checks them, and recognises the initial-sync packet
// wherever it occurs. Main thread only.
#pragma once

#include <array>
#include <cstdint>

#include "mux/MuxRing.h"
#include "mux/Packet.h"

namespace vexa {

class HostPacketStream {
  public:
    enum class State : std::uint8_t {
        kUnsynced = 0,    // before the first good packet
        kCollecting = 1,  // bytes go into the packet buffer
        kWaiting = 2,     // a good packet waits to be routed
    };

    HostPacketStream() { Init(); }
    HostPacketStream(const HostPacketStream&) = delete;
    HostPacketStream& operator=(const HostPacketStream&) = delete;

    // Empties everything and starts before the first sync.
    void Init();

    // Takes bytes from the host link until none is left or a good packet waits. Partial packets
    // that a sync cuts off, packets with a wrong checksum and bytes behind a waiting packet are
    // dumped and dropped. True when an initial sync reset the stream in this pass: the sender of
    // replies then counts from 0 again.
    bool ParsePass();

    [[nodiscard]] bool HasPacket() const { return state == State::kWaiting; }

    // The waiting packet. Bytes past its length are zero.
    [[nodiscard]] const std::uint8_t* Packet() const { return packet.data(); }

    // The waiting packet is done with.
    void Release() { state = State::kCollecting; }

  private:
    static constexpr std::uint32_t kSyncRingSize = kInitialSyncSize + 1;

    bool CompletesInitialSync(std::uint8_t byte);
    void TakeInitialSync();
    void Assemble(std::uint8_t byte);
    void Reset();
    void ClearPacketFrom(std::size_t length);

    std::array<std::uint8_t, kPacketBufferSize> packet{};
    std::uint16_t count = 0;  // bytes of the packet received so far
    State state = State::kUnsynced;
    MuxRing syncRing;  // the newest 25 bytes received
    std::array<std::uint8_t, kSyncRingSize> syncRingStorage{};
};

}  // namespace vexa
