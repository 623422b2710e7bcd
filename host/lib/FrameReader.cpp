#include "vexahost/FrameReader.h"

#include <algorithm>

#include "mux/Packet.h"
#include "vexahost/Describe.h"

namespace vexahost {

std::span<const std::uint8_t> FrameReader::Next(std::span<const std::uint8_t>& input) {
    while (!violated && payloadLeft == 0 && !input.empty()) {
        TakeHeaderByte(input.front());
        input = input.subspan(1);
    }
    if (violated) return {};
    const auto piece = input.first(std::min<std::size_t>(payloadLeft, input.size()));
    payloadLeft -= static_cast<std::uint32_t>(piece.size());
    input = input.subspan(piece.size());
    return piece;
}

void FrameReader::TakeHeaderByte(std::uint8_t byte) {
    header[headerCount++] = byte;
    if (headerCount < kFrameHeaderSize) return;
    const std::uint32_t length = vexa::LoadLe32(header.data());
    if (length == 0 || length > kMaxFramePayload ||
        !std::ranges::equal(kFrameMagic, std::span(header).subspan(kFrameMagicOffset))) {
        violated = true;
        return;
    }
    headerCount = 0;
    payloadLeft = length;
    ++frameCount;
}

std::string FrameReader::Violation() const {
    const std::uint32_t length = vexa::LoadLe32(header.data());
    const bool magic =
        std::ranges::equal(kFrameMagic, std::span(header).subspan(kFrameMagicOffset));
    const std::string fault = magic ? "length " + std::to_string(length) + ", not 1 to " +
                                          std::to_string(kMaxFramePayload)
                                    : "no \"U012\" at its end";
    return "bad frame header (" + fault + "): " + HexText(header);
}

}  // namespace vexahost
