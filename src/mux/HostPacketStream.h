// Cuts the host's byte stream into packets, checks them, and recognises the initial-sync packet
// wherever it occurs. Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "mux/Packet.h"
#include "mux/SyncSearch.h"

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
    [[nodiscard]] const std::uint8_t* Packet() const { return buffer.data() + kPacketAt; }

    // The waiting packet is done with.
    void Release() { state = State::kCollecting; }

  private:
    static constexpr std::size_t kPacketAt = SyncSearch::kHistory;

    std::size_t Missing(std::span<const std::uint8_t> input) const;
    bool Append(std::span<const std::uint8_t> input);
    bool Ignore(std::uint8_t byte);
    void TakeInitialSync(const std::uint8_t* sync);
    void FinishPacket();
    void ClearPacketFrom(std::size_t length);

    // Bytes as they came, one piece: an initial sync is looked for across the packets' bounds.
    //
    //   0                     24                24 + count
    //  +---------------------+-----------------+------------------------------+
    //  | 24 bytes before the | bytes of the    | rest of earlier packets, or  |
    //  | packet              | packet so far   | zero behind a waiting one    |
    //  +---------------------+-----------------+------------------------------+
    std::array<std::uint8_t, kPacketAt + kPacketBufferSize> buffer{};
    std::size_t count = 0;  // bytes of the packet received so far
    std::size_t used = 0;   // bytes of the packet buffer that may be other than zero
    State state = State::kUnsynced;
    SyncSearch syncSearch;
};

}  // namespace vexa
