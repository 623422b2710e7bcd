#include "capture/RequestReader.h"

#include <algorithm>
#include <utility>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

void RequestReader::Reset() {
    count = 0;
    newest.fill(0);
}

bool RequestReader::CompletesInitialSync(std::uint8_t byte) {
    std::shift_left(newest.begin(), newest.end(), 1);
    newest.back() = byte;
    return vexa::IsInitialSync(newest);
}

std::optional<PacketView> RequestReader::Next(std::span<const std::uint8_t>& input) {
    while (!input.empty()) {
        const std::uint8_t byte = input.front();
        input = input.subspan(1);
        if (CompletesInitialSync(byte)) {
            count = 0;
            std::ranges::copy(newest, packet.begin());
            newest.fill(0);
            return PacketView{std::span(packet).first(newest.size()), true};
        }
        packet[count++] = byte;
        if (count < vexa::kPacketHeaderSize || count < packet[vexa::kLengthOffset]) continue;
        const std::size_t length = std::exchange(count, 0);
        const bool right = packet[vexa::kLengthOffset] == length && vexa::HasRightChecksum(packet);
        return PacketView{std::span(packet).first(length), right};
    }
    return std::nullopt;
}

}  // namespace vexahost
