#include "page/LiveUnit.h"

#include <algorithm>
#include <utility>

#include "page/LiveDevice.h"

namespace vexahost::page {

namespace {

constexpr Milliseconds kConnectTimeout{3000};
constexpr Milliseconds kLeaveTimeout{1000};
constexpr int kMostAtOnce = 5000;  // blocks, so that a flood of them leaves time for viewers

}  // namespace

LiveUnit::LiveUnit(Options options_, std::function<void()> wake_)
    : options(std::move(options_)), wake(std::move(wake_)) {
    for (const std::string& name : options.devices) {
        devices.push_back(std::make_shared<Device>(name, nextChild++, options.formats));
    }
    connector = std::thread([this] { StayConnected(); });
    orderer = std::thread([this] { RunOrders(); });
}

LiveUnit::~LiveUnit() {
    {
        const vexa::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.notify_all();
    connector.join();
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

// --- the connecting thread ----------------------------------------------------------------------

void LiveUnit::StayConnected() {
    while (!isEnding) {
        const bool isConnected = Connected() != nullptr || Connect();
        vexa::MutexLock lock(mutex);
        if (!isConnected && !isEnding) changed.wait_for(lock, options.retry);
        while (state.link == LinkState::kUp && !isEnding) changed.wait(lock);
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

// --- the collecting thread ----------------------------------------------------------------------

std::vector<std::shared_ptr<LiveUnit::Device>> LiveUnit::OpenDevices() const {
    const vexa::MutexLock lock(mutex);
    auto open = devices;
    std::erase_if(open, [](const auto& device) { return !device->isOpen; });
    return open;
}

void LiveUnit::Collect(const Take& take) {
    Client* const from = Connected();
    if (from == nullptr) return;
    const auto open = OpenDevices();
    std::vector<ChildId> children;
    for (const auto& device : open) {
        if (device->child != 0) children.push_back(device->child);
    }
    const bool withDaq = children.size() < open.size();
    std::optional<Error> end;
    for (int i = 0; i < kMostAtOnce && !open.empty() && !end; ++i) {
        const auto received = from->ReceiveAny(children, withDaq, Milliseconds{0});
        if (received) {
            const ChildId child = received->child.value_or(0);
            Pass(**std::ranges::find(open, child, [](const auto& each) { return each->child; }),
                 received->block, take);
        } else {
            end = received.error();
        }
    }
    {
        const vexa::MutexLock lock(mutex);
        for (const auto& device : open) device->rate = device->reader.Rate();
    }
    // An order may have closed a device just now.
    if (!end || end->kind == ErrorKind::kNotOpen) end = from->LinkError();
    if (!end || end->kind == ErrorKind::kTimeout || end->kind == ErrorKind::kCancelled) return;
    SetLink(LinkState::kConnecting, end->message);
}

void LiveUnit::Pass(Device& device, const Block& block, const Take& take) {
    if (device.readerOpened != device.opened) {
        device.readerOpened = device.opened;
        device.reader.Reopen(device.readerOpened);
    }
    const auto* const read = device.reader.Read(block.bytes, block.sequence,
                                                Seconds(block.receivedAt), block.checksumRight);
    if (device.channels.empty()) NameChannels(device);
    if (read == nullptr) return;
    for (std::size_t i = 0; i < device.channels.size() && i < read->values.size(); ++i) {
        take({device.channels[i].number, read->times.afterGap, read->times.first, read->times.step,
              read->values[i]});
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
