#include "capture/FrameCutter.h"

#include <algorithm>

#include "vexahost/protocol/FrameHeader.h"

namespace vexahost {

namespace {

using Header = std::span<const std::uint8_t, vexa::kFrameHeaderSize>;

}  // namespace

void FrameCutter::Take(std::span<const std::uint8_t> piece) {
    if (framing == Framing::kNone) return WrapPiece(piece);
    while (!violated && !piece.empty()) {
        std::size_t wanted = vexa::kFrameHeaderSize;
        if (frame.size() >= vexa::kFrameHeaderSize)
            wanted += vexa::FramePayloadSize(Header(frame.data(), vexa::kFrameHeaderSize));
        const auto taken = piece.first(std::min(wanted - frame.size(), piece.size()));
        frame.insert(frame.end(), taken.begin(), taken.end());
        piece = piece.subspan(taken.size());
        if (frame.size() < wanted) return;
        if (wanted == vexa::kFrameHeaderSize) {
            violated = !vexa::IsFrameHeader(Header(frame.data(), vexa::kFrameHeaderSize));
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
        const auto payload =
            piece.first(std::min<std::size_t>(piece.size(), vexa::kMaxFramePayload));
        frame.resize(vexa::kFrameHeaderSize);
        vexa::BuildFrameHeader(std::span(frame).first<vexa::kFrameHeaderSize>(),
                               static_cast<std::uint32_t>(payload.size()));
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
