// Cuts what a host sends into packets, the way a unit does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/PacketReader.h"

namespace vexahost {

/// A unit searches for no packet start: a wrong byte shifts all that follows until the next initial
/// sync, which it finds at any byte. Allocates nothing; used by one thread.
class RequestReader {
  public:
    /// The next packet of the stream whose next bytes are at the front of `input`; `input` is moved
    /// past what was used. Valid until the next call. Nothing when `input` is used up. A packet
    /// whose length byte is less than 4 comes as its 4 header bytes, with the checksum said wrong.
    std::optional<PacketView> Next(std::span<const std::uint8_t>& input);

    /// What has come of the next packet.
    [[nodiscard]] std::span<const std::uint8_t> Unfinished() const {
        return std::span(packet).first(count);
    }

    /// A new connection: what had come of a packet is dropped.
    void Reset();

  private:
    bool CompletesInitialSync(std::uint8_t byte);

    std::array<std::uint8_t, vexa::kPacketBufferSize> packet{};
    std::size_t count = 0;                                      // bytes of the next packet
    std::array<std::uint8_t, vexa::kInitialSyncSize> newest{};  // bytes that came last
};

}  // namespace vexahost
