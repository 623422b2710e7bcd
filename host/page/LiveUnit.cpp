#include "page/LiveUnit.h"

#include <algorithm>
#include <utility>

#include "page/LiveDevice.h"

namespace vexahost::page {

namespace {

constexpr Milliseconds kReceiveWait{100};
// Between two looks at what has come: a wake-up for each block would cost more than its samples.
constexpr Milliseconds kCollect{15};
constexpr Milliseconds kConnectTimeout{3000};
constexpr Milliseconds kLeaveTimeout{1000};
constexpr int kMostAtOnce = 200;                 // blocks between two looks at what is open
constexpr std::size_t kMostSamples = 2'000'000;  // that wait to be fetched
constexpr std::chrono::seconds kKept{1};         // how long they wait

}  // namespace

LiveUnit::LiveUnit(Options options_, std::function<void()> wake_)
    : options(std::move(options_)), wake(std::move(wake_)) {
    for (const std::string& name : options.devices) {
        devices.push_back(std::make_shared<Device>(name, nextChild++, options.formats));
    }
    receiver = std::thread([this] { Receive(); });
    orderer = std::thread([this] { RunOrders(); });
}

LiveUnit::~LiveUnit() {
    {
        const vexa::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.notify_all();
    receiver.join();
    orderer.join();
    // The unit is left in order: one that does not answer is left alone.
    isLeaving = true;
    if (Client* const left = Connected()) {
        static_cast<void>(left->CloseController(kLeaveTimeout));
        left->Close();
    }
    const vexa::MutexLock lock(mutex);
    client.reset();
}

double LiveUnit::Seconds(Clock::time_point time) const {
    return std::chrono::duration<double>(time - start).count();
}

Client* LiveUnit::Connected() const {
    const vexa::MutexLock lock(mutex);
    return state.link == LinkState::kUp ? client.get() : nullptr;
}

std::vector<std::shared_ptr<LiveUnit::Device>> LiveUnit::Devices() const {
    const vexa::MutexLock lock(mutex);
    return devices;
}

// Changes guarded fields, then says so.
void LiveUnit::Change(const std::function<void()>& change) {
    {
        const vexa::MutexLock lock(mutex);
        change();
        ++stateNumber;
    }
    changed.notify_all();
    wake();
}

void LiveUnit::SetLink(LinkState link, const std::string& why) {
    {
        const vexa::MutexLock lock(mutex);
        if (state.link == link && state.why == why) return;
    }
    Change([&]() VEXA_REQUIRES(mutex) {
        if (state.link == LinkState::kUp && link != LinkState::kUp) ++state.losses;
        state.link = link;
        state.why = why;
        if (link == LinkState::kUp) return;
        state.daqTaken = false;
        state.application.reset();
        std::erase_if(devices, [](const auto& device) { return device->child == 0; });
        for (const auto& device : devices) CloseHere(*device);
    });
}

// The device is no longer open at the unit; what was counted stays.
void LiveUnit::CloseHere(Device& device) {
    if (!device.isOpen) return;
    device.former = StatisticsOf(device);
    device.isOpen = false;
}

ChildStatistics LiveUnit::StatisticsOf(const Device& device) const {
    ChildStatistics sum = device.former;
    if (!client || !device.isOpen) return sum;
    const auto now = client->StatisticsOf(device.child).value_or(ChildStatistics{});
    sum.blocks += now.blocks;
    sum.bytes += now.bytes;
    sum.sequenceGaps += now.sequenceGaps;
    sum.dropped += now.dropped;
    return sum;
}

// --- the receiving thread -----------------------------------------------------------------------

void LiveUnit::Pause(std::chrono::milliseconds time) {
    vexa::MutexLock lock(mutex);
    changed.wait_for(lock, time);
}

void LiveUnit::Receive() {
    while (!isEnding) {
        if (!Connected() && !Connect()) {
            Pause(options.retry);
        } else if (Connected()) {
            ReceiveSome();
        }
    }
}

bool LiveUnit::Connect() {
    Client* known = nullptr;
    {
        const vexa::MutexLock lock(mutex);
        known = client.get();
    }
    std::optional<Error> problem;
    if (known != nullptr) {
        if (const auto again = known->Reconnect(kConnectTimeout); !again) problem = again.error();
    } else {
        ClientOptions settings;
        settings.isCancelled = [this] { return isEnding.load() && !isLeaving.load(); };
        auto made = Client::Connect(options.factory, settings, kConnectTimeout);
        if (made) {
            const vexa::MutexLock lock(mutex);
            client = std::move(*made);
            known = client.get();
        } else {
            problem = made.error();
        }
    }
    if (!problem) {
        if (const auto opened = known->OpenController(kControllerId, false); !opened) {
            problem = opened.error();
        }
    }
    if (problem) {
        SetLink(LinkState::kConnecting, problem->message);
        return false;
    }
    SetLink(LinkState::kUp, "");
    Add({.kind = Order::Kind::kReopen, .answer = {}});
    return true;
}

void LiveUnit::ReceiveSome() {
    std::vector<ChildId> children;
    bool withDaq = false;
    Client* from = nullptr;
    {
        vexa::MutexLock lock(mutex);
        from = client.get();
        for (const auto& device : devices) {
            if (!device->isOpen) continue;
            if (device->child == 0)
                withDaq = true;
            else
                children.push_back(device->child);
        }
        // With nothing to wait for at the unit, a change is waited for.
        if (children.empty() && !withDaq) changed.wait_for(lock, kReceiveWait);
    }
    auto lost = from->LinkError();
    if (!lost && (!children.empty() || withDaq)) {
        auto wait = kReceiveWait;
        for (int i = 0; i < kMostAtOnce; ++i, wait = Milliseconds{0}) {
            const auto received = from->ReceiveAny(children, withDaq, wait);
            if (received) {
                Pass(*received);
                continue;
            }
            if (received.error().kind == ErrorKind::kNotOpen) break;  // closed by an order
            if (received.error().kind == ErrorKind::kTimeout) {
                if (i > 0) Pause(kCollect);
                break;
            }
            if (received.error().kind == ErrorKind::kCancelled) return;
            lost = received.error();
            break;
        }
    }
    if (lost) SetLink(LinkState::kConnecting, lost->message);
}

void LiveUnit::Pass(const Received& received) {
    const ChildId child = received.child.value_or(0);
    const Block& block = received.block;
    std::shared_ptr<Device> device;
    {
        const vexa::MutexLock lock(mutex);
        const auto found =
            std::ranges::find(devices, child, [](const auto& each) { return each->child; });
        if (found == devices.end()) return;
        device = *found;
    }
    if (device->readerOpened != device->opened) {
        device->readerOpened = device->opened;
        device->reader.Reopen(device->readerOpened);
    }
    const auto* const read = device->reader.Read(block.bytes, block.sequence,
                                                 Seconds(block.receivedAt), block.checksumRight);
    if (device->channels.empty()) NameChannels(*device);
    if (read == nullptr) return;
    const auto rate = device->reader.Rate();
    const vexa::MutexLock lock(mutex);
    device->rate = rate;
    if (sampleCount > kMostSamples || Clock::now() - takenAt > kKept) {
        samples.clear();
        sampleCount = 0;
    }
    for (std::size_t i = 0; i < device->channels.size() && i < read->values.size(); ++i) {
        const auto& values = read->values[i];
        samples.push_back({device->channels[i].number, read->times.afterGap, read->times.first,
                           read->times.step, std::vector<float>(values.begin(), values.end())});
        sampleCount += values.size();
    }
}

// The first block with samples says which channels there are.
void LiveUnit::NameChannels(Device& device) {
    const DeviceFormat* const format = device.reader.Format();
    if (format == nullptr) return;
    Change([&]() VEXA_REQUIRES(mutex) {
        for (const ChannelFormat& channel : format->channels) {
            device.channels.push_back({nextChannel++, channel.name, channel.unit});
        }
    });
}

// --- what viewers see ---------------------------------------------------------------------------

std::vector<ChannelSamples> LiveUnit::TakeSamples() {
    const vexa::MutexLock lock(mutex);
    sampleCount = 0;
    takenAt = Clock::now();
    return std::exchange(samples, {});
}

std::uint64_t LiveUnit::StateNumber() const {
    const vexa::MutexLock lock(mutex);
    return stateNumber;
}

UnitState LiveUnit::State() const {
    const vexa::MutexLock lock(mutex);
    UnitState copy = state;
    if (client) copy.statistics = client->Statistics();
    for (const auto& device : devices) {
        WatchedDevice watched{device->child,
                              device->name,
                              device->isOpen,
                              device->problem,
                              device->channels,
                              device->rate,
                              {}};
        if (device->child == 0) {
            watched.statistics = {copy.statistics.daqPackets, copy.statistics.daqBytes,
                                  copy.statistics.daqSequenceGaps, copy.statistics.daqDropped};
        } else {
            watched.statistics = StatisticsOf(*device);
        }
        copy.devices.push_back(std::move(watched));
    }
    return copy;
}

}  // namespace vexahost::page
