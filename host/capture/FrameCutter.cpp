#include "capture/FrameCutter.h"

#include <algorithm>

#include "mux/Packet.h"

namespace vexahost {

FrameHeader ReadFrameHeader(std::span<const std::uint8_t> bytes) {
    FrameHeader header{vexa::LoadLe32(bytes.data()), false};
    header.good =
        header.length > 0 && header.length <= kMaxFramePayload &&
        std::ranges::equal(kFrameMagic, bytes.subspan(kFrameMagicOffset, kFrameMagic.size()));
    return header;
}

void FrameCutter::Take(std::span<const std::uint8_t> piece) {
    if (framing == Framing::kNone) return WrapPiece(piece);
    while (!violated && !piece.empty()) {
        std::size_t wanted = kFrameHeaderSize;
        if (frame.size() >= kFrameHeaderSize) wanted += ReadFrameHeader(frame).length;
        const auto taken = piece.first(std::min(wanted - frame.size(), piece.size()));
        frame.insert(frame.end(), taken.begin(), taken.end());
        piece = piece.subspan(taken.size());
        if (frame.size() < wanted) return;
        if (wanted == kFrameHeaderSize) {
            violated = !ReadFrameHeader(frame).good;
            if (violated) Finish();
            continue;
        }
        sink(frame);
        frame.clear();
    }
    if (!piece.empty()) sink(piece);
}

void FrameCutter::WrapPiece(std::span<const std::uint8_t> piece) {
    while (!piece.empty()) {
        const auto payload = piece.first(std::min<std::size_t>(piece.size(), kMaxFramePayload));
        frame.resize(kFrameHeaderSize);
        vexa::StoreLe32(frame.data(), static_cast<std::uint32_t>(payload.size()));
        std::ranges::copy(kFrameMagic, frame.begin() + kFrameMagicOffset);
        frame.insert(frame.end(), payload.begin(), payload.end());
        sink(frame);
        frame.clear();
        piece = piece.subspan(payload.size());
    }
}

void FrameCutter::Finish() {
    if (!frame.empty()) sink(frame);
    frame.clear();
}

}  // namespace vexahost
