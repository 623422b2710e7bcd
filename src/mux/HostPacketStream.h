// Cuts the host's byte stream into packets, checks them, and recognises the initial-sync packet
// wherever it occurs. Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "mux/SyncSearch.h"
#include "protocol/Packet.h"

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

    // Empties everything and returns to the state before the first sync.
    void Init();

    // Reads the host link until it is empty or a good packet waits. Dumps and drops: a partial
    // packet that a sync cuts off, a packet with a wrong checksum, and bytes that arrive after a
    // waiting packet. True when an initial sync reset the stream in this pass; the service's own
    // replies are then numbered from 0 again.
    bool ParsePass();

    [[nodiscard]] bool HasPacket() const { return state == State::kWaiting; }

    // The waiting packet. Bytes past its length are zero.
    [[nodiscard]] PacketBuffer Packet() const {
        return std::span(buffer).subspan<kPacketAt, kPacketBufferSize>();
    }

    // The waiting packet has been routed.
    void Release() { state = State::kCollecting; }

  private:
    static constexpr std::size_t kPacketAt = SyncSearch::kHistory;

    [[nodiscard]] std::size_t Wanted(std::span<const std::uint8_t> input) const;
    [[nodiscard]] bool IsComplete() const;
    bool Append(std::span<const std::uint8_t> input);
    bool Ignore(std::uint8_t byte);
    void AcceptInitialSync(std::span<const std::uint8_t, kInitialSyncSize> sync);
    void FinishPacket();
    void ClearFrom(std::size_t length);

    // The newest bytes in one piece, because an initial sync may begin in one packet and end in
    // the next.
    //
    //   0                     24                24 + count
    //  +---------------------+-----------------+------------------------------+
    //  | 24 bytes before the | bytes of the    | rest of earlier packets, or  |
    //  | packet              | packet so far   | zero after a waiting packet  |
    //  +---------------------+-----------------+------------------------------+
    std::array<std::uint8_t, kPacketAt + kPacketBufferSize> buffer{};
    std::size_t count = 0;  // bytes of the packet received so far
    State state = State::kUnsynced;
    SyncSearch syncSearch;
};

}  // namespace vexa
