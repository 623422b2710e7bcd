#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <set>

#include "tool/Exit.h"
#include "tool/Samples.h"
#include "tool/stream/StreamSource.h"

namespace vexahost::tool {

bool StreamedDevices::Contains(const std::string& name) const {
    return (daq && name == kDaqName) || std::ranges::find(names, name) != names.end();
}

UnitSource::UnitSource(const UnitAddress& unit_, const StreamedDevices& wanted)
    : unit(unit_), devices(wanted), names(wanted.names), labels(names) {
    for (std::size_t i = 0; i < devices.names.size(); ++i) {
        ids.push_back(kFirstDeviceId + static_cast<ChildId>(i));
        if (std::ranges::count(names, names[i]) < 2) continue;
        char id[16];
        std::snprintf(id, sizeof id, "/0x%X", ids[i]);
        labels[i] += id;
    }
    if (devices.daq) {
        names.emplace_back(kDaqName);
        labels.emplace_back(kDaqName);
    }
    opened.resize(names.size());
    former.resize(names.size());
}

// The service opens the first attached device of the type that a name stands for.
void UnitSource::WarnOfSharedTypes() const {
    const auto attached = ListDevices(unit);
    for (const VirtualDevice& first : attached) {
        std::string sharing;
        for (const VirtualDevice& device : attached) {
            const bool isWanted = std::ranges::find(names, device.name) != names.end();
            if (isWanted && device.type == first.type && device.name != first.name) {
                sharing += (sharing.empty() ? "" : ", ") + device.name;
            }
        }
        if (sharing.empty() ||
            &first != &*std::ranges::find(attached, first.type, &VirtualDevice::type)) {
            continue;
        }
        std::fprintf(stderr,
                     "vexa-host: %s: shows %s, the first attached device of the same type, %" PRIu64
                     "\n",
                     sharing.c_str(), first.name.c_str(), first.type);
    }
}

// Times count from here, not from connecting: a unit may take half a second to notice its cable.
Expected<Done> UnitSource::Open(Client& connected) {
    client = &connected;
    WarnOfSharedTypes();
    start = Clock::now();
    startTime = std::chrono::system_clock::now().time_since_epoch();
    return OpenAll();
}

Expected<Done> UnitSource::OpenAll() {
    if (devices.daq) {
        opened.back() = Now();
        if (auto taken = client->TakeDaqOver(); !taken) return taken;
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::string& name = names[i];
        opened[i] = Now();
        if (auto done = OpenDevice(*client, unit, name, ids[i]); !done) return done;
        if (std::ranges::find(devices.arm, name) == devices.arm.end()) continue;
        if (auto sent = client->Send(ids[i], HidInitRequest()); !sent) return sent;
    }
    return Done{};
}

Expected<Done> UnitSource::Reopen(Clock::time_point end, const std::function<bool()>& idle) {
    constexpr Milliseconds kAttempt{3000};
    constexpr Milliseconds kPause{200};
    for (std::size_t i = 0; i < names.size(); ++i) {
        former[i] = StatisticsOf(i);
        if (i == ids.size()) former[i] = {};  // the client goes on counting the DAQ's packets
    }
    isAway = true;
    std::set<std::string> said;  // each reason once
    while (!IsInterrupted() && Clock::now() < end && idle()) {
        const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
        auto done = client->Reconnect(std::min(left, kAttempt));
        if (done) done = client->OpenController(kControllerId, false);
        if (done) done = OpenAll();
        if (done) isAway = false;
        if (done) return done;
        if (done.error().kind == ErrorKind::kCancelled) return done;
        if (said.insert(done.error().message).second) {
            std::fprintf(stderr, "vexa-host: %s\n", done.error().message.c_str());
        }
        WaitInterruptibly(std::min(end, Clock::now() + kPause));
    }
    return Error{ErrorKind::kCancelled, "the link did not come back"};
}

Expected<std::optional<SourceBlock>> UnitSource::Receive(Milliseconds wait) {
    auto received = client->ReceiveAny(ids, devices.daq, wait);
    if (!received) return received.error();
    const std::size_t device = received->child ? *received->child - kFirstDeviceId : ids.size();
    const double seconds = std::max(SecondsOf(received->block.receivedAt), 0.0);
    return std::optional(SourceBlock{device, received->child, seconds, std::move(received->block)});
}

double UnitSource::SecondsOf(Clock::time_point time) const {
    return std::chrono::duration<double>(time - start).count();
}

double UnitSource::Now() const { return SecondsOf(Clock::now()); }

ChildStatistics UnitSource::OfConnection(std::size_t device) const {
    if (device < ids.size()) return client->StatisticsOf(ids[device]).value_or(ChildStatistics{});
    const auto all = client->Statistics();
    return {all.daqPackets, all.daqBytes, all.daqSequenceGaps, all.daqDropped};
}

ChildStatistics UnitSource::StatisticsOf(std::size_t device) const {
    const bool isCounted = isAway && device < ids.size();
    const auto now = isCounted ? ChildStatistics{} : OfConnection(device);
    const auto& before = former[device];
    return {before.blocks + now.blocks, before.bytes + now.bytes,
            before.sequenceGaps + now.sequenceGaps, before.dropped + now.dropped};
}

void UnitSource::PrintSilent() const {
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (StatisticsOf(i).blocks > 0) continue;
        std::fprintf(stderr,
                     "vexa-host: %s has sent nothing so far; a HID sensor reports only when armed: "
                     "--arm %s\n",
                     labels[i].c_str(), names[i].c_str());
    }
}

void UnitSource::PrintTotals() const {
    const double seconds = std::max(Now(), 0.001);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto counts = StatisticsOf(i);
        const bool isDaq = i == ids.size();
        std::fprintf(
            stderr, "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, %" PRIu64 " gaps in the sequence, ",
            labels[i].c_str(), counts.blocks, counts.bytes, counts.sequenceGaps);
        if (isDaq) {
            std::fprintf(stderr, "%" PRIu64 " with a wrong checksum, ",
                         client->Statistics().daqWrongChecksums);
        }
        std::fprintf(
            stderr, "%" PRIu64 " blocks dropped here; %.1f blocks/s, %.0f bytes/s%s\n",
            counts.dropped, static_cast<double>(counts.blocks) / seconds,
            static_cast<double>(counts.bytes) / seconds,
            counts.blocks == 0 && !isDaq ? " (a HID sensor reports only when armed: --arm)" : "");
    }
    const std::uint64_t lost = client->Statistics().resynchronisations;
    if (lost == 0) return;
    std::fprintf(stderr,
                 "vexa-host: the unit cut packets %" PRIu64
                 " times, as when its output buffer is full; blocks are missing there\n",
                 lost);
}

}  // namespace vexahost::tool
