#include "vexahost/Decoder.h"

#include <algorithm>
#include <cstdio>

#include "vexahost/Recording.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/FrameHeader.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

using Bytes = std::span<const std::uint8_t>;

bool IsTunnel(Bytes packet) {
    return vexa::TypeClass(packet[vexa::kTypeOffset]) == vexa::kClassTunnel &&
           packet.size() >= vexa::kTunnelHeaderSize;
}

ChildId TunnelId(Bytes packet) { return vexa::LoadLe32(packet, vexa::kTunnelIdOffset); }

bool IsCommand(Bytes inner, vexa::ControllerCommand command) {
    return inner.size() >= vexa::kCommandNameLengthOffset &&
           inner[vexa::kCommandOffset] == static_cast<std::uint8_t>(command);
}

bool KnowsCommand(Bytes inner) {
    return inner.size() > vexa::kCommandOffset &&
           vexa::IsControllerCommand(inner[vexa::kCommandOffset]);
}

std::string HexId(ChildId id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", id);
    return text;
}

}  // namespace

const char* KindName(PacketKind kind) {
    switch (kind) {
        case PacketKind::kInitialSync:
            return "initial-sync";
        case PacketKind::kMultiplexerCommand:
            return "multiplexer-command";
        case PacketKind::kControllerCommand:
            return "controller-command";
        case PacketKind::kChildData:
            return "child-data";
        case PacketKind::kInitialSyncReply:
            return "initial-sync-reply";
        case PacketKind::kMultiplexerReply:
            return "multiplexer-reply";
        case PacketKind::kControllerReply:
            return "controller-reply";
        case PacketKind::kDaqPacket:
            return "daq-packet";
        case PacketKind::kOther:
            return "other";
        case PacketKind::kBroken:
            return "broken";
        case PacketKind::kEvent:
            return "event";
    }
    return "other";
}

void CaptureDecoder::Add(const CapturedFrame& frame) {
    if (frame.bytes.empty()) {
        AddEvent(frame);
    } else if (frame.direction == Direction::kToUnit) {
        AddRequests(frame);
    } else {
        AddFrameOfUnit(frame);
    }
}

void CaptureDecoder::AddEvent(const CapturedFrame& frame) {
    if (frame.comment == kCableIn || frame.comment == kCableOut) {
        Finish(frame.time);
        toUnit.Reset();
        fromUnit = {};
        fromUnit.LoseStep();
        violationReported = false;
        controller.reset();
        devices.clear();
    }
    std::string text = frame.comment.empty() ? "no bytes" : frame.comment;
    std::ranges::replace_if(
        text, [](char letter) { return static_cast<unsigned char>(letter) < ' '; }, '?');
    sink({frame.time, frame.direction, PacketKind::kEvent, true, std::nullopt, {}, text});
}

void CaptureDecoder::Finish(CaptureTime time) {
    const Bytes unfinished = toUnit.Unfinished();
    if (unfinished.empty()) return;
    ReportBroken(time, Direction::kToUnit, unfinished,
                 "the beginning of a packet that never came whole");
}

void CaptureDecoder::AddRequests(const CapturedFrame& frame) {
    Bytes input = frame.bytes;
    while (const auto packet = toUnit.Next(input)) {
        const PacketKind kind =
            packet->checksumRight ? KindOfRequest(packet->bytes) : PacketKind::kBroken;
        if (packet->checksumRight) Follow(frame.time, packet->bytes);
        if (kind == PacketKind::kInitialSync) {
            fromUnit.LoseStep();
            violationReported = false;
        }
        Report(frame.time, frame.direction, kind, *packet);
    }
}

void CaptureDecoder::AddFrameOfUnit(const CapturedFrame& frame) {
    if (frame.bytes.size() < vexa::kFrameHeaderSize ||
        !vexa::IsFrameHeader(frame.bytes.first<vexa::kFrameHeaderSize>())) {
        return ReportBroken(frame.time, frame.direction, frame.bytes, "no frame header");
    }
    Bytes payload = frame.bytes.subspan(vexa::kFrameHeaderSize);
    const std::size_t length = vexa::FramePayloadSize(frame.bytes.first<vexa::kFrameHeaderSize>());
    while (const auto packet = fromUnit.Next(payload)) {
        Report(frame.time, frame.direction, KindFromUnit(packet->bytes), *packet);
    }
    if (fromUnit.IsViolated() && !violationReported) {
        violationReported = true;
        ReportBroken(frame.time, frame.direction, {}, "no packet: " + fromUnit.Violation());
    }
    if (frame.bytes.size() != vexa::kFrameHeaderSize + length) {
        ReportBroken(frame.time, frame.direction, {},
                     "frame of " + std::to_string(length) + " bytes with " +
                         std::to_string(frame.bytes.size() - vexa::kFrameHeaderSize));
    }
}

PacketKind CaptureDecoder::KindOfRequest(Bytes packet) const {
    if (IsTunnel(packet)) {
        const Bytes inner = packet.subspan(vexa::kTunnelHeaderSize);
        const bool command = vexa::ReopensController(inner) || TunnelId(packet) == controller;
        return command ? PacketKind::kControllerCommand : PacketKind::kChildData;
    }
    if (vexa::TypeClass(packet[vexa::kTypeOffset]) != vexa::kClassCommand)
        return PacketKind::kOther;
    const bool sync = packet.size() == vexa::kInitialSyncSize &&
                      packet[vexa::kCommandOffset] == vexa::kInitialSyncCommand;
    return sync ? PacketKind::kInitialSync : PacketKind::kMultiplexerCommand;
}

PacketKind CaptureDecoder::KindFromUnit(Bytes packet) const {
    if (IsTunnel(packet)) {
        // The controller answers under id 0 when its entry is gone by then.
        const ChildId id = TunnelId(packet);
        const bool ofController = id == controller || (id == 0 && !devices.contains(id));
        return ofController && vexa::IsServiceReply(packet.subspan(vexa::kTunnelHeaderSize))
                   ? PacketKind::kControllerReply
                   : PacketKind::kChildData;
    }
    if (vexa::IsInitialSyncReply(packet)) return PacketKind::kInitialSyncReply;
    if (vexa::TypeClass(packet[vexa::kTypeOffset]) == vexa::kClassDaq) {
        return vexa::IsDaqReply(packet) ? PacketKind::kMultiplexerReply : PacketKind::kDaqPacket;
    }
    return vexa::IsServiceReply(packet) ? PacketKind::kMultiplexerReply : PacketKind::kOther;
}

void CaptureDecoder::Follow(CaptureTime time, Bytes request) {
    if (KindOfRequest(request) != PacketKind::kControllerCommand) return;
    const Bytes inner = request.subspan(vexa::kTunnelHeaderSize);
    if (inner.size() < vexa::kCommandNameLengthOffset) return;
    const ChildId id = vexa::LoadLe32(inner, vexa::kCommandChildIdOffset);
    if (vexa::ReopensController(inner)) {
        controller = id;
        devices.clear();
    } else if (IsCommand(inner, vexa::ControllerCommand::kOpenChild)) {
        const auto known = devices.find(id);
        if (known != devices.end() && !known->second.isClosed) return;  // the unit will refuse
        devices[id] = {{DeviceNameIn(inner), time, ++asked}, false};
    } else if (IsCommand(inner, vexa::ControllerCommand::kCloseChild)) {
        const auto known = devices.find(id);
        if (known != devices.end()) known->second.isClosed = true;
    }
}

const AskedDevice* CaptureDecoder::DeviceOf(ChildId child) const {
    const auto known = devices.find(child);
    return known == devices.end() ? nullptr : &known->second.device;
}

std::string CaptureDecoder::ChildText(Direction direction, ChildId child, std::size_t bytes) const {
    std::string text = std::to_string(bytes) + (bytes == 1 ? " byte " : " bytes ");
    text += direction == Direction::kToUnit ? "to child " : "from child ";
    text += HexId(child);
    const auto* const device = DeviceOf(child);
    return device == nullptr ? text : text + " \"" + device->name + '"';
}

void CaptureDecoder::Report(CaptureTime time, Direction direction, PacketKind kind,
                            const PacketView& packet) {
    DecodedPacket decoded{time, direction, kind, packet.checksumRight, {}, packet.bytes, {}};
    if (IsTunnel(packet.bytes)) decoded.child = TunnelId(packet.bytes);
    if (!inWords) return sink(decoded);
    const bool known = kind != PacketKind::kControllerCommand ||
                       KnowsCommand(packet.bytes.subspan(vexa::kTunnelHeaderSize));
    if (kind == PacketKind::kChildData && packet.checksumRight) {
        decoded.text =
            ChildText(direction, *decoded.child, packet.bytes.size() - vexa::kTunnelHeaderSize);
    } else {
        decoded.text = known ? DescribePacket(direction, packet.bytes)
                             : "packet to controller " + HexId(*decoded.child) +
                                   " that is none of its commands";
    }
    sink(decoded);
}

void CaptureDecoder::ReportBroken(CaptureTime time, Direction direction, Bytes bytes,
                                  const std::string& text) {
    sink({time, direction, PacketKind::kBroken, false, std::nullopt, bytes, text});
}

}  // namespace vexahost
