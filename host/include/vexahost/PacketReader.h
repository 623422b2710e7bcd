// Cut byte streams into packets: what a unit sends, and what a host sends.
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

// One packet, in the buffer of its reader.
struct PacketView {
    std::span<const std::uint8_t> bytes;  // the whole packet, at least the 4 header bytes
    bool checksumRight;
};

// Cuts what a unit sends into packets. Allocates nothing. One thread at a time.
class PacketReader {
  public:
    // The next packet of the stream; the bytes used are removed from the front of `input`. Valid
    // until the next call. Nothing when `input` is used up, or after a violation (a packet whose
    // length byte is smaller than its header), which only LoseStep clears.
    std::optional<PacketView> Next(std::span<const std::uint8_t>& input);

    // From now on finds an initial-sync reply at any position, until one has come or EndSearch.
    void AwaitSyncReply();

    // No reply to an initial sync is expected any more.
    void EndSearch() { awaitingSyncReply = false; }

    // It is not known any more where the next packet begins: when a host connects, the stream may
    // begin in the middle of one, as first comes what the unit could not send to an earlier host;
    // and a unit whose output buffer is full cuts packets. Until an initial-sync reply, which is
    // awaited, or four good packets in a row, packets with a wrong checksum are skipped, and
    // nothing is a violation.
    void LoseStep();

    [[nodiscard]] bool IsInStep() const { return inStep; }
    [[nodiscard]] bool IsAwaitingSyncReply() const { return awaitingSyncReply; }
    [[nodiscard]] bool IsViolated() const { return violated; }

    // A description with the offending bytes; only after a violation.
    [[nodiscard]] std::string Violation() const;

  private:
    bool CompletesSyncReply(std::uint8_t byte);
    [[nodiscard]] std::size_t Missing() const;
    std::optional<PacketView> Add(std::span<const std::uint8_t> piece);

    std::array<std::uint8_t, vexa::kPacketBufferSize> packet{};
    std::size_t count = 0;  // bytes of the unfinished packet
    std::array<std::uint8_t, vexa::kInitialSyncReplySize> newest{};  // while awaiting a sync reply
    bool awaitingSyncReply = false;
    bool violated = false;
    bool inStep = true;
    int goodInRow = 0;  // packets since the step was lost
};

// Cuts what a host sends into packets, as a unit does: a unit does not search for the start of a
// packet, so after a lost byte everything is shifted until the next initial sync, which it finds at
// any position. Allocates nothing. One thread at a time.
class RequestReader {
  public:
    // The next packet of the stream; the bytes used are removed from the front of `input`. Valid
    // until the next call. Nothing when `input` is used up. A packet whose length byte is less than
    // 4 comes as its 4 header bytes, with checksumRight false.
    std::optional<PacketView> Next(std::span<const std::uint8_t>& input);

    // The unfinished packet.
    [[nodiscard]] std::span<const std::uint8_t> Unfinished() const {
        return std::span(packet).first(count);
    }

    // A new connection: drops the unfinished packet.
    void Reset();

  private:
    bool CompletesInitialSync(std::uint8_t byte);

    std::array<std::uint8_t, vexa::kPacketBufferSize> packet{};
    std::size_t count = 0;                                      // bytes of the unfinished packet
    std::array<std::uint8_t, vexa::kInitialSyncSize> newest{};  // the last bytes
};

}  // namespace vexahost
