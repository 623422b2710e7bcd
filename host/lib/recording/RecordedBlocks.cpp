#include "vexahost/RecordedBlocks.h"

#include <algorithm>
#include <cstdio>

#include "vexahost/protocol/Packet.h"

namespace vexahost {

double RecordedBlocks::SecondsOf(CaptureTime time) const {
    return std::chrono::duration<double>(time - Start()).count();
}

void RecordedBlocks::Add(const CapturedFrame& frame) {
    if (!start) start = frame.time;
    auto& decoder = decoders[frame.unit];
    if (!decoder) {
        decoder = std::make_unique<CaptureDecoder>(
            [this, unit = frame.unit](const DecodedPacket& packet) { AddPacket(unit, packet); },
            false);
    }
    decoder->Add(frame);
}

std::size_t RecordedBlocks::DeviceFor(std::uint32_t unit, const std::string& name,
                                      std::optional<ChildId> child) {
    bool isTaken = false;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (devices[i].name != name) continue;
        if (unitOf[i] == unit && devices[i].child == child) return i;
        isTaken = true;
    }
    std::string label = name;
    if (isTaken) {
        char id[32];
        std::snprintf(id, sizeof id, "/0x%X", child.value_or(0));
        label += id;
        const auto isSame = [&](const RecordedDevice& other) { return other.label == label; };
        if (std::ranges::any_of(devices, isSame)) {
            label += '/';
            label += std::to_string(unit);
        }
    }
    devices.push_back({name, label, child, {}});
    unitOf.push_back(unit);
    return devices.size() - 1;
}

void RecordedBlocks::AddPacket(std::uint32_t unit, const DecodedPacket& packet) {
    const bool isDaq = packet.kind == PacketKind::kDaqPacket;
    const bool isChild = packet.kind == PacketKind::kChildData && packet.child.has_value();
    if (packet.direction != Direction::kFromUnit || (!isDaq && !isChild)) return;
    if (isChild && !packet.checksumRight) return;  // as a host does
    const auto* const asked = isChild ? decoders[unit]->DeviceOf(*packet.child) : nullptr;
    const std::uint32_t opening = asked != nullptr ? asked->number : 0;
    const std::optional<ChildId> child = isChild ? packet.child : std::nullopt;
    const auto [found, isNew] = places.try_emplace({unit, child});
    Place& place = found->second;
    std::optional<double> opened;
    if (isNew || place.opening != opening) {
        char unknown[32];
        std::snprintf(unknown, sizeof unknown, "child 0x%X", child.value_or(0));
        place = {DeviceFor(unit,
                           isDaq              ? "DAQ"
                           : asked != nullptr ? asked->name
                                              : unknown,
                           child),
                 opening, std::nullopt};
        opened = asked != nullptr ? SecondsOf(asked->asked) : 0;
    }
    const std::uint8_t sequence = packet.bytes[vexa::kSequenceOffset];
    const auto bytes = isDaq ? packet.bytes : packet.bytes.subspan(vexa::kTunnelHeaderSize);
    ChildStatistics& counts = devices[place.device].statistics;
    ++counts.blocks;
    counts.bytes += bytes.size();
    const auto expected = static_cast<std::uint8_t>(place.sequence.value_or(0) + 1);
    if (place.sequence && packet.checksumRight && sequence != expected) ++counts.sequenceGaps;
    if (packet.checksumRight) place.sequence = sequence;
    sink({place.device, SecondsOf(packet.time), opened, bytes, sequence, packet.checksumRight});
}

}  // namespace vexahost
