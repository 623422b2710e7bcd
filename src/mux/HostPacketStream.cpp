#include "mux/HostPacketStream.h"

#include <algorithm>
#include <cstring>

#include "devices/HostLink.h"

namespace vexa {

void HostPacketStream::Init() {
    buffer.fill(0);
    count = 0;
    used = 0;
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

// How many of the bytes to come end the packet, at most; its length may still be to come itself.
std::size_t HostPacketStream::Missing(std::span<const std::uint8_t> input) const {
    std::size_t length = Packet()[kLengthOffset];
    if (count <= kLengthOffset) {
        const std::size_t lengthAt = kLengthOffset - count;
        if (input.size() <= lengthAt) return input.size();
        length = input[lengthAt];
    }
    return std::max(length, kPacketHeaderSize) - count;
}

// Takes bytes up to the end of the packet or of an initial sync. True for the latter.
bool HostPacketStream::Append(std::span<const std::uint8_t> input) {
    const std::size_t missing = Missing(input);
    const std::size_t size = std::min(missing, input.size());
    std::uint8_t* const end = buffer.data() + kPacketAt + count;
    std::memcpy(end, input.data(), size);
    used = std::max(used, count + size);
    const std::size_t syncEnd = syncSearch.Find(end, size);
    if (syncEnd < size) {
        HostLink_TakeBytes(syncEnd + 1);
        count += syncEnd;
        TakeInitialSync(end + syncEnd - SyncSearch::kHistory);
        return true;
    }
    HostLink_TakeBytes(size);
    count += size;
    if (count >= kPacketHeaderSize && size == missing) FinishPacket();
    return false;
}

// Drops a byte behind a waiting packet. True when it completes an initial sync nevertheless.
bool HostPacketStream::Ignore(std::uint8_t byte) {
    std::array<std::uint8_t, kInitialSyncSize> newest{};
    std::copy_n(buffer.begin(), SyncSearch::kHistory, newest.begin());
    newest.back() = byte;
    if (syncSearch.Find(&newest.back(), 1) == 0) {
        TakeInitialSync(newest.data());
        return true;
    }
    std::copy_n(newest.begin() + 1, SyncSearch::kHistory, buffer.begin());
    DumpHostInput(&byte, 1, "IGNORED");
    return false;
}

void HostPacketStream::TakeInitialSync(const std::uint8_t* sync) {
    std::uint8_t* const packet = buffer.data() + kPacketAt;
    if (count > 0) DumpHostInput(packet, static_cast<int>(count), "PRE_INIT");
    std::memmove(packet, sync, kInitialSyncSize);
    used = std::max(used, kInitialSyncSize);
    ClearPacketFrom(kInitialSyncSize);
    count = 0;
    state = State::kWaiting;
    syncSearch.Reset();
    DumpHostInput(packet, kInitialSyncSize, "INIT");
}

void HostPacketStream::FinishPacket() {
    const std::uint8_t* const packet = Packet();
    // The newest bytes become those before the next packet.
    std::memmove(buffer.data(), buffer.data() + count, SyncSearch::kHistory);
    if (count == packet[kLengthOffset] && packet[kChecksumOffset] == PacketChecksum(packet)) {
        // No field of an earlier, longer packet may be taken for this one's.
        ClearPacketFrom(count);
        state = State::kWaiting;
    } else {
        DumpHostInput(packet, static_cast<int>(count), "BAD CHECKSUM");
    }
    count = 0;
}

void HostPacketStream::ClearPacketFrom(std::size_t length) {
    std::fill_n(buffer.begin() + static_cast<std::ptrdiff_t>(kPacketAt + length), used - length,
                std::uint8_t{0});
    used = length;
}

}  // namespace vexa
