#include "vexahost/PacketReader.h"

#include <algorithm>

#include "vexahost/Describe.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

std::optional<PacketView> PacketReader::Next(std::span<const std::uint8_t>& input) {
    while (!violated && !input.empty()) {
        const std::uint8_t byte = input.front();
        input = input.subspan(1);
        if (awaitingSyncReply && CompletesSyncReply(byte)) {
            awaitingSyncReply = false;
            count = 0;
            std::ranges::copy(newest, packet.begin());
            return PacketView{std::span(packet).first(newest.size()), true};
        }
        if (const auto complete = TakeByte(byte)) return complete;
    }
    return std::nullopt;
}

std::optional<PacketView> PacketReader::TakeByte(std::uint8_t byte) {
    packet[count++] = byte;
    if (count < vexa::kPacketHeaderSize) return std::nullopt;
    const std::size_t length = packet[vexa::kLengthOffset];
    if (length < vexa::kPacketHeaderSize) {
        violated = !awaitingSyncReply;
        if (!violated) count = 0;
        return std::nullopt;
    }
    if (count < length) return std::nullopt;
    count = 0;
    const bool right = vexa::HasRightChecksum(packet);
    if (awaitingSyncReply && !right) return std::nullopt;
    return PacketView{std::span(packet).first(length), right};
}

bool PacketReader::CompletesSyncReply(std::uint8_t byte) {
    std::shift_left(newest.begin(), newest.end(), 1);
    newest.back() = byte;
    return vexa::IsInitialSyncReply(newest);
}

void PacketReader::AwaitSyncReply() {
    if (violated) count = 0;
    violated = false;
    awaitingSyncReply = true;
    newest.fill(0);
    // Of the bytes that came already, those of the unfinished packet may begin the reply.
    const std::size_t kept = std::min(count, newest.size());
    std::copy_n(packet.begin() + static_cast<std::ptrdiff_t>(count - kept), kept,
                newest.end() - static_cast<std::ptrdiff_t>(kept));
}

std::string PacketReader::Violation() const {
    return "packet with length byte " + std::to_string(packet[vexa::kLengthOffset]) + ": " +
           HexText(std::span(packet).first(count));
}

}  // namespace vexahost
