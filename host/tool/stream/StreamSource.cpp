#include "StreamSource.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "../DeviceData.h"

using vexahost::Block;
using vexahost::ChildId;
using vexahost::ChildStatistics;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;

namespace {

constexpr const char* kDaqName = "DAQ";
constexpr Milliseconds kPause{20};

ChildId IdOf(std::size_t device) { return kFirstDeviceId + static_cast<ChildId>(device); }

}  // namespace

bool StreamedDevices::Contains(const std::string& name) const {
    return (daq && name == kDaqName) || std::ranges::find(names, name) != names.end();
}

StreamSource::StreamSource(vexahost::Client& connected, const StreamedDevices& wanted)
    : client(connected), devices(wanted), names(wanted.names) {
    if (devices.daq) names.emplace_back(kDaqName);
}

Expected<Done> StreamSource::Open() {
    if (devices.daq) {
        if (auto taken = client.TakeDaqOver(); !taken) return taken;
    }
    for (std::size_t i = 0; i < devices.names.size(); ++i) {
        const std::string& name = devices.names[i];
        if (auto opened = client.OpenDevice(name, IdOf(i)); !opened) return opened;
        if (std::ranges::find(devices.arm, name) == devices.arm.end()) continue;
        if (auto sent = client.Send(IdOf(i), HidInitRequest()); !sent) return sent;
    }
    return Done{};
}

Expected<Block> StreamSource::Receive(std::size_t device, Milliseconds wait) {
    if (device < devices.names.size()) return client.Receive(IdOf(device), wait);
    auto packet = client.ReceiveDaq(wait);
    if (!packet) return packet;
    ++daqCounts.blocks;
    daqCounts.bytes += packet->bytes.size();
    if (!packet->checksumRight) ++daqWrongChecksums;
    return packet;
}

Expected<Done> StreamSource::TakeAllOf(std::size_t device, Milliseconds wait,
                                       const TakeBlock& take) {
    for (;;) {
        const auto block = Receive(device, wait);
        if (!block) {
            if (block.Failure().kind == ErrorKind::kTimeout) return Done{};
            return block.Failure();
        }
        take(device, *block);
        wait = Milliseconds{0};
    }
}

Expected<Done> StreamSource::TakeAll(const TakeBlock& take) {
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (auto taken = TakeAllOf(i, i == 0 ? kPause : Milliseconds{0}, take); !taken)
            return taken;
    }
    return Done{};
}

ChildStatistics StreamSource::StatisticsOf(std::size_t device) const {
    if (device < devices.names.size()) {
        return client.StatisticsOf(IdOf(device)).value_or(ChildStatistics{});
    }
    ChildStatistics counts = daqCounts;
    counts.dropped = client.Statistics().daqDropped;
    return counts;
}

void StreamSource::PrintTotals(std::chrono::steady_clock::duration time) const {
    const double seconds = std::max(std::chrono::duration<double>(time).count(), 0.001);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto counts = StatisticsOf(i);
        const bool isDaq = i == devices.names.size();
        std::fprintf(stderr, "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, ", names[i].c_str(),
                     counts.blocks, counts.bytes);
        if (isDaq) {
            std::fprintf(stderr, "%" PRIu64 " with a wrong checksum, ", daqWrongChecksums);
        } else {
            std::fprintf(stderr, "%" PRIu64 " gaps in the sequence, ", counts.sequenceGaps);
        }
        std::fprintf(
            stderr, "%" PRIu64 " blocks dropped here; %.1f blocks/s, %.0f bytes/s%s\n",
            counts.dropped, static_cast<double>(counts.blocks) / seconds,
            static_cast<double>(counts.bytes) / seconds,
            counts.blocks == 0 && !isDaq ? " (a HID sensor reports only when armed: --arm)" : "");
    }
}
