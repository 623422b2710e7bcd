// What viewers ask of the unit.
#include <algorithm>
#include <utility>

#include "page/LiveDevice.h"
#include "page/LiveUnit.h"

namespace vexahost::page {

namespace {

constexpr const char* kDaq = "DAQ";
constexpr std::size_t kMostOrders = 64;
// A device opens although nobody waits for the answer any more, and would be shown as not open.
constexpr Milliseconds kOpenTimeout{20000};

// The request that arms a HID sensor.
constexpr std::uint8_t kHidInit[8] = {0x40};

}  // namespace

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
    auto opened = Timed(
        [&](Client& unit) { return unit.OpenDevice(device->name, device->child, kOpenTimeout); });
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

}  // namespace vexahost::page
