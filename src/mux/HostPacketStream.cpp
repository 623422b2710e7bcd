#include "mux/HostPacketStream.h"

#include <algorithm>
#include <cstring>

#include "devices/HostLink.h"

namespace vexa {

void HostPacketStream::Init() {
    buffer.fill(0);
    count = 0;
    state = State::kUnsynced;
    syncSearch.Reset();
}

bool HostPacketStream::ParsePass() {
    const bool waitingBefore = HasPacket();
    for (auto input = HostLink_Input(); !input.empty(); input = HostLink_Input()) {
        if (waitingBefore) {
            const std::uint8_t byte = input.front();
            HostLink_TakeBytes(1);
            if (Ignore(byte)) return true;
            continue;
        }
        if (Append(input)) return true;
        if (HasPacket()) return false;
    }
    return false;
}

// How many bytes are missing, as far as can be told: without the length byte, all of `input`.
std::size_t HostPacketStream::Wanted(std::span<const std::uint8_t> input) const {
    if (count + input.size() <= kLengthOffset) return input.size();
    const std::size_t length =
        count > kLengthOffset ? Packet()[kLengthOffset] : input[kLengthOffset - count];
    return std::max(length, kPacketHeaderSize) - count;
}

// A packet is complete with at least 4 bytes, and as many as its length byte says.
bool HostPacketStream::IsComplete() const {
    return count >= kPacketHeaderSize && count >= Packet()[kLengthOffset];
}

// Moves bytes into the packet, at most as many as it wants and not past an initial sync. True when
// they completed an initial sync.
bool HostPacketStream::Append(std::span<const std::uint8_t> input) {
    input = input.first(std::min(Wanted(input), input.size()));
    std::memcpy(&buffer[kPacketAt + count], input.data(), input.size());
    const std::size_t untilSync =
        syncSearch.Find(std::span(buffer).subspan(count, kPacketAt + input.size()));
    if (untilSync != 0) {
        HostLink_TakeBytes(untilSync);
        // The byte that completes the sync does not count as part of the packet that it cuts off.
        count += untilSync - 1;
        AcceptInitialSync(std::span(buffer).subspan(count).first<kInitialSyncSize>());
        return true;
    }
    HostLink_TakeBytes(input.size());
    count += input.size();
    if (IsComplete()) FinishPacket();
    return false;
}

// Drops a byte that arrives after a waiting packet. True when it completes an initial sync, which
// counts nevertheless.
bool HostPacketStream::Ignore(std::uint8_t byte) {
    std::array<std::uint8_t, kInitialSyncSize> newest{};
    std::copy_n(buffer.begin(), SyncSearch::kHistory, newest.begin());
    newest.back() = byte;
    if (syncSearch.Find(newest) != 0) {
        AcceptInitialSync(newest);
        return true;
    }
    std::copy_n(newest.begin() + 1, SyncSearch::kHistory, buffer.begin());
    DumpHostInput(&byte, 1, "IGNORED");
    return false;
}

void HostPacketStream::AcceptInitialSync(std::span<const std::uint8_t, kInitialSyncSize> sync) {
    std::array<std::uint8_t, kInitialSyncSize> bytes{};  // `sync` may overlap the packet
    std::ranges::copy(sync, bytes.begin());
    const auto packet = std::span(buffer).subspan<kPacketAt>();
    if (count > 0) DumpHostInput(packet.data(), static_cast<int>(count), "PRE_INIT");
    std::ranges::copy(bytes, packet.begin());
    ClearFrom(kInitialSyncSize);
    count = 0;
    state = State::kWaiting;
    syncSearch.Reset();
    DumpHostInput(packet.data(), kInitialSyncSize, "INIT");
}

void HostPacketStream::FinishPacket() {
    const PacketBuffer packet = Packet();
    // The newest bytes become those before the next packet. The two may overlap.
    std::array<std::uint8_t, SyncSearch::kHistory> newest;
    std::memcpy(newest.data(), &buffer[count], newest.size());
    std::memcpy(buffer.data(), newest.data(), newest.size());
    if (count == packet[kLengthOffset] && HasRightChecksum(packet)) {
        // No byte of an earlier, longer packet may pass for a field of this one.
        ClearFrom(count);
        state = State::kWaiting;
    } else {
        DumpHostInput(packet.data(), static_cast<int>(count), "BAD CHECKSUM");
    }
    count = 0;
}

void HostPacketStream::ClearFrom(std::size_t length) {
    std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(kPacketAt + length), buffer.end(),
              std::uint8_t{0});
}

}  // namespace vexa
