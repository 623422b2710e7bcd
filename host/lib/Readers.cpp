#include <algorithm>
#include <utility>

#include "vexahost/Describe.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"
#include "vexahost/Recording.h"
#include "vexahost/protocol/FrameHeader.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

std::span<const std::uint8_t> FrameReader::Next(std::span<const std::uint8_t>& input) {
    while (!violated && payloadLeft == 0 && !input.empty()) {
        AddHeaderByte(input.front());
        input = input.subspan(1);
    }
    if (violated) return {};
    const auto piece = input.first(std::min<std::size_t>(payloadLeft, input.size()));
    payloadLeft -= static_cast<std::uint32_t>(piece.size());
    input = input.subspan(piece.size());
    return piece;
}

void FrameReader::AddHeaderByte(std::uint8_t byte) {
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

std::optional<PacketView> PacketReader::Next(std::span<const std::uint8_t>& input) {
    while (!violated && !input.empty()) {
        // The awaited reply may begin at any byte.
        const auto piece = input.first(awaitingSyncReply ? 1 : std::min(Missing(), input.size()));
        input = input.subspan(piece.size());
        if (awaitingSyncReply && CompletesSyncReply(piece.front())) {
            awaitingSyncReply = false;
            inStep = true;
            count = 0;
            std::ranges::copy(newest, packet.begin());
            return PacketView{std::span(packet).first(newest.size()), true};
        }
        if (const auto complete = Add(piece)) return complete;
    }
    return std::nullopt;
}

// Bytes until the header or the packet is whole.
std::size_t PacketReader::Missing() const {
    const bool hasHeader = count >= vexa::kPacketHeaderSize;
    return (hasHeader ? packet[vexa::kLengthOffset] : vexa::kPacketHeaderSize) - count;
}

std::optional<PacketView> PacketReader::Add(std::span<const std::uint8_t> piece) {
    std::copy_n(piece.data(), piece.size(), &packet[count]);
    count += piece.size();
    if (count < vexa::kPacketHeaderSize) return std::nullopt;
    const std::size_t length = packet[vexa::kLengthOffset];
    if (length < vexa::kPacketHeaderSize) {
        violated = inStep;
        if (!violated) count = 0;
        goodInRow = 0;
        return std::nullopt;
    }
    if (count < length) return std::nullopt;
    count = 0;
    const bool right = vexa::HasRightChecksum(packet);
    if (!inStep) {
        constexpr int kGoodEnough = 4;  // a checksum that is right by chance is one in 256
        goodInRow = right ? goodInRow + 1 : 0;
        inStep = goodInRow >= kGoodEnough;
        if (!right) return std::nullopt;
    }
    return PacketView{std::span(packet).first(length), right};
}

bool PacketReader::CompletesSyncReply(std::uint8_t byte) {
    std::shift_left(newest.begin(), newest.end(), 1);
    newest.back() = byte;
    return vexa::IsInitialSyncReply(newest);
}

void PacketReader::LoseStep() {
    if (violated) count = 0;
    violated = false;
    inStep = false;
    goodInRow = 0;
    AwaitSyncReply();
}

void PacketReader::AwaitSyncReply() {
    awaitingSyncReply = true;
    newest.fill(0);
    // The reply may have begun in the unfinished packet.
    const std::size_t kept = std::min(count, newest.size());
    std::copy_n(packet.begin() + static_cast<std::ptrdiff_t>(count - kept), kept,
                newest.end() - static_cast<std::ptrdiff_t>(kept));
}

std::string PacketReader::Violation() const {
    return "packet with length byte " + std::to_string(packet[vexa::kLengthOffset]) + ": " +
           HexText(std::span(packet).first(count));
}

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

namespace {

using Header = std::span<const std::uint8_t, vexa::kFrameHeaderSize>;

}  // namespace

void FrameCutter::Add(std::span<const std::uint8_t> piece) {
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
