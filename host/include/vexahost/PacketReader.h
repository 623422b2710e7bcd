// Cuts the packet stream of a unit into packets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

/// One packet in its reader's buffer.
struct PacketView {
    std::span<const std::uint8_t> bytes;  // the whole packet, at least the 4 header bytes
    bool checksumRight;
};

/// Allocates nothing; used by one thread.
class PacketReader {
  public:
    /// The next packet of the stream whose next bytes are at the front of `input`; `input` is moved
    /// past what was used. Valid until the next call. Nothing when `input` is used up, or at a
    /// violation (a packet that names itself shorter than its header), from which only
    /// AwaitSyncReply leads on.
    std::optional<PacketView> Next(std::span<const std::uint8_t>& input);

    /// A host cannot know where in a packet a unit's stream begins when it connects: what a unit
    /// could not send to an earlier host comes first. From here to the next initial-sync reply that
    /// reply is recognised wherever it stands, packets with a wrong checksum are left out and
    /// nothing is a violation.
    void AwaitSyncReply();

    [[nodiscard]] bool IsAwaitingSyncReply() const { return awaitingSyncReply; }
    [[nodiscard]] bool IsViolated() const { return violated; }

    /// What is wrong, with the offending bytes; only after a violation.
    [[nodiscard]] std::string Violation() const;

  private:
    bool CompletesSyncReply(std::uint8_t byte);
    std::optional<PacketView> TakeByte(std::uint8_t byte);

    std::array<std::uint8_t, vexa::kPacketBufferSize> packet{};
    std::size_t count = 0;  // bytes of the next packet that have come
    std::array<std::uint8_t, vexa::kInitialSyncReplySize> newest{};  // while awaiting a sync reply
    bool awaitingSyncReply = false;
    bool violated = false;
};

}  // namespace vexahost
