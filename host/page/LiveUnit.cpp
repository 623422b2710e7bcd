#include "page/LiveUnit.h"

#include <algorithm>
#include <utility>

namespace vexahost::page {

namespace {

constexpr const char* kDaq = "DAQ";
constexpr Milliseconds kReceiveWait{100};
// Between two looks at what has come: a wake-up for each block would cost more than its samples.
constexpr Milliseconds kCollect{15};
constexpr Milliseconds kConnectTimeout{3000};
constexpr Milliseconds kLeaveTimeout{1000};
constexpr int kMostAtOnce = 200;                 // blocks between two looks at what is open
constexpr std::size_t kMostSamples = 2'000'000;  // that wait to be fetched
constexpr std::chrono::seconds kKept{1};         // how long they wait
constexpr std::size_t kMostOrders = 64;

// The request that arms a HID sensor.
constexpr std::uint8_t kHidInit[8] = {0x40};

}  // namespace

// What is not guarded is the receiving thread's alone.
struct LiveUnit::Device {
    Device(std::string name_, ChildId child_, std::shared_ptr<const DeviceFormats> formats)
        : name(std::move(name_)), child(child_), reader(name, std::move(formats), 0) {}

    const std::string name;
    const ChildId child;
    SampleReader reader;
    std::atomic<double> opened = 0;
    double readerOpened = -1;  // the opening that the reader knows of

    // Guarded by LiveUnit::mutex.
    bool isOpen = false;
    std::string problem{};
    std::vector<Channel> channels{};  // changed by the receiving thread alone
    std::optional<double> rate{};
    ChildStatistics former{};  // of the openings before this one
};

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

// --- orders -------------------------------------------------------------------------------------

void LiveUnit::Add(Order order) {
    {
        const vexa::MutexLock lock(mutex);
        if (orders.size() < kMostOrders) {
            orders.push_back(std::move(order));
            changed.notify_all();
            return;
        }
    }
    if (order.answer) order.answer("too many requests wait already");
}

void LiveUnit::RunOrders() {
    while (true) {
        Order order{Order::Kind::kQuery, {}, {}, {}, {}};
        {
            vexa::MutexLock lock(mutex);
            while (orders.empty() && !isEnding) changed.wait(lock);
            if (isEnding) return;
            order = std::move(orders.front());
            orders.pop_front();
        }
        const std::string problem = Run(order);
        if (order.answer) order.answer(problem);
    }
}

std::string LiveUnit::Run(const Order& order) {
    const auto text = [](const Expected<Done>& done) { return done ? "" : done.error().message; };
    switch (order.kind) {
        case Order::Kind::kOpen:
            return Open(order.name);
        case Order::Kind::kClose:
            return order.child == 0 ? HandBack() : Close(order.child);
        case Order::Kind::kTakeOver:
            return TakeOver();
        case Order::Kind::kHandBack:
            return HandBack();
        case Order::Kind::kSend:
            return text(Timed([&](Client& unit) { return unit.Send(order.child, order.bytes); }));
        case Order::Kind::kArm:
            return text(Timed([&](Client& unit) { return unit.Send(order.child, kHidInit); }));
        case Order::Kind::kReopen:
            OpenWanted();
            return Run({.kind = Order::Kind::kQuery, .answer = {}});
        case Order::Kind::kQuery:
            return text(Timed([&](Client& unit) -> Expected<Done> {
                const auto application = unit.QueryDaqApplication();
                if (!application) return application.error();
                Change([&]() VEXA_REQUIRES(mutex) { state.application = *application; });
                return Done{};
            }));
    }
    return "";
}

// Makes a request, and measures how long the unit takes for its answer.
Expected<Done> LiveUnit::Timed(const std::function<Expected<Done>(Client&)>& request) {
    Client* const unit = Connected();
    if (unit == nullptr) return Error{ErrorKind::kLinkLost, "the unit is not connected"};
    const auto began = Clock::now();
    auto done = request(*unit);
    const vexa::MutexLock lock(mutex);
    if (done) state.roundTripSeconds = Seconds(Clock::now()) - Seconds(began);
    return done;
}

Expected<Done> LiveUnit::OpenAtUnit(const std::shared_ptr<Device>& device) {
    device->opened = Seconds(Clock::now());
    auto opened = Timed([&](Client& unit) { return unit.OpenDevice(device->name, device->child); });
    Change([&]() VEXA_REQUIRES(mutex) {
        device->isOpen = opened.has_value();
        device->problem = opened ? "" : opened.error().message;
    });
    return opened;
}

// A device of that name that could not be opened before is tried again.
std::string LiveUnit::Open(const std::string& name) {
    std::shared_ptr<Device> device;
    bool isNew = false;
    {
        const vexa::MutexLock lock(mutex);
        const auto known = std::ranges::find_if(devices, [&](const auto& each) {
            return each->child != 0 && each->name == name && !each->isOpen;
        });
        isNew = known == devices.end();
        device = isNew ? std::make_shared<Device>(name, nextChild++, options.formats) : *known;
        if (isNew) devices.push_back(device);
    }
    const auto opened = OpenAtUnit(device);
    if (opened) return "";
    if (isNew) Change([&]() VEXA_REQUIRES(mutex) { std::erase(devices, device); });
    return opened.error().message;
}

// A device whose close was not answered stays in the list, so that it can be closed again.
std::string LiveUnit::Close(ChildId child) {
    std::shared_ptr<Device> device;
    for (const auto& each : Devices()) {
        if (each->child == child) device = each;
    }
    if (!device) return "no such device is open";
    bool isOpen = false;
    {
        const vexa::MutexLock lock(mutex);
        isOpen = device->isOpen;
    }
    if (isOpen) {
        const auto closed = Timed([&](Client& unit) { return unit.CloseDevice(child); });
        if (!closed && closed.error().kind != ErrorKind::kNotOpen) return closed.error().message;
    }
    Change([&]() VEXA_REQUIRES(mutex) { std::erase(devices, device); });
    return "";
}

void LiveUnit::OpenWanted() {
    for (const auto& device : Devices()) {
        if (device->child != 0) static_cast<void>(OpenAtUnit(device));
    }
}

std::string LiveUnit::TakeOver() {
    const auto taken = Timed([](Client& unit) { return unit.TakeDaqOver(); });
    if (!taken) return taken.error().message;
    Change([&]() VEXA_REQUIRES(mutex) {
        state.daqTaken = true;
        state.application.reset();
        const bool isThere =
            std::ranges::any_of(devices, [](const auto& device) { return device->child == 0; });
        if (isThere) return;
        auto daq = std::make_shared<Device>(kDaq, 0, options.formats);
        daq->isOpen = true;
        daq->opened = Seconds(Clock::now());
        devices.push_back(std::move(daq));
    });
    return "";
}

// The controller's end hands the hardware back, and closes all devices: they are opened again.
std::string LiveUnit::HandBack() {
    Change([&]() VEXA_REQUIRES(mutex) {
        state.daqTaken = false;
        std::erase_if(devices, [](const auto& device) { return device->child == 0; });
        for (const auto& device : devices) CloseHere(*device);
    });
    Expected<Done> closed = Done{};
    const auto opened = Timed([&closed](Client& unit) {
        closed = unit.CloseController();
        return unit.OpenController(kControllerId, false);  // also after a late answer
    });
    if (!opened) {
        // What is open at the unit is unknown: everything begins anew.
        if (Client* const unit = Connected()) unit->Close();
        return opened.error().message;
    }
    OpenWanted();
    static_cast<void>(Run({.kind = Order::Kind::kQuery, .answer = {}}));
    return closed ? "" : closed.error().message;
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
