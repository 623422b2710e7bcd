#include "vexahost/FrameReader.h"

#include <algorithm>

#include "vexahost/Describe.h"
#include "vexahost/protocol/FrameHeader.h"

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
    if (headerCount < vexa::kFrameHeaderSize) return;
    violated = !vexa::IsFrameHeader(header);
    if (violated) return;
    headerCount = 0;
    payloadLeft = vexa::FramePayloadSize(header);
    ++frameCount;
}

std::string FrameReader::Violation() const {
    const std::string fault = vexa::HasFrameMark(header)
                                  ? "length " + std::to_string(vexa::FramePayloadSize(header)) +
                                        ", not 1 to " + std::to_string(vexa::kMaxFramePayload)
                                  : "no \"U012\" at its end";
    return "bad frame header (" + fault + "): " + HexText(header);
}

}  // namespace vexahost
