#include "mux/HostPacketStream.h"

#include <algorithm>

#include "devices/HostLink.h"

namespace vexa {

void HostPacketStream::Init() {
    packet.fill(0);
    syncRingStorage.fill(0);
    syncRing.Init(syncRingStorage.data(), kSyncRingSize);
    Reset();
    state = State::kUnsynced;
}

void HostPacketStream::Reset() {
    state = State::kCollecting;
    count = 0;
}

bool HostPacketStream::ParsePass() {
    const bool waitingBefore = HasPacket();
    while (HostLink_BytesAvailable() != 0) {
        const std::uint8_t byte = HostLink_ReadByte();
        if (CompletesInitialSync(byte)) {
            TakeInitialSync();
            return true;
        }
        if (waitingBefore) {
            DumpHostInput(&byte, 1, "IGNORED");
            continue;
        }
        Assemble(byte);
        if (HasPacket()) return false;
    }
    return false;
}

bool HostPacketStream::CompletesInitialSync(std::uint8_t byte) {
    syncRing.Put(byte);
    if (byte != kInitialSyncSignature.back()) return false;
    std::array<std::uint8_t, kInitialSyncSize> newest{};
    if (!syncRing.PeekNewest(newest.data(), kInitialSyncSize)) return false;
    return std::equal(kInitialSyncSignature.rbegin(), kInitialSyncSignature.rend(),
                      newest.rbegin()) &&
           TypeClass(newest[kTypeOffset]) == kClassCommand &&
           newest[kLengthOffset] == kInitialSyncSize &&
           newest[kCommandOffset] == kInitialSyncCommand &&
           newest[kChecksumOffset] == PacketChecksum(newest.data());
}

void HostPacketStream::TakeInitialSync() {
    if (count > 0) DumpHostInput(packet.data(), count, "PRE_INIT");
    Reset();
    syncRing.PeekNewest(packet.data(), kInitialSyncSize);
    ClearPacketFrom(kInitialSyncSize);
    syncRing.Reset();
    state = State::kWaiting;
    DumpHostInput(packet.data(), kInitialSyncSize, "INIT");
}

void HostPacketStream::Assemble(std::uint8_t byte) {
    packet[count++] = byte;
    if (count < kPacketHeaderSize || count < packet[kLengthOffset]) return;
    const bool good =
        count == packet[kLengthOffset] && packet[kChecksumOffset] == PacketChecksum(packet.data());
    if (good) {
        // No field of an earlier, longer packet may be taken for this one's.
        ClearPacketFrom(count);
        state = State::kWaiting;
    } else {
        DumpHostInput(packet.data(), count, "BAD CHECKSUM");
    }
    count = 0;
}

void HostPacketStream::ClearPacketFrom(std::size_t length) {
    std::fill(packet.begin() + static_cast<std::ptrdiff_t>(length), packet.end(), std::uint8_t{0});
}

}  // namespace vexa
