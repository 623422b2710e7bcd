// A unit that is watched: stays connected, keeps the wanted devices open, turns their blocks into
// samples, and carries out what viewers ask for.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "vexahost/Client.h"
#include "vexahost/Samples.h"

namespace vexahost::page {

// Id under which the page opens the controller.
inline constexpr ChildId kControllerId = 1;

// One channel of a device. Numbers are never used twice.
struct Channel {
    std::uint32_t number;
    std::string name;
    std::string unit;
};

// Consecutive samples of a channel: at `first`, `first + step`, ... seconds since the start. The
// values are borrowed.
struct ChannelSamples {
    std::uint32_t channel;
    bool afterGap;
    double first;
    double step;
    std::span<const double> values;
};

// A device that the page has opened, or wants open.
struct WatchedDevice {
    ChildId child;  // 0: the DAQ
    std::string name;
    bool isOpen = false;
    std::string problem;  // why it is not open
    std::vector<Channel> channels;
    std::optional<double> rate;  // samples per second of a channel
    ChildStatistics statistics;
};

enum class LinkState { kConnecting, kUp };

// What is known of the unit at a moment.
struct UnitState {
    LinkState link = LinkState::kConnecting;
    std::string why;           // why the link is not up
    std::uint64_t losses = 0;  // of the link
    bool daqTaken = false;     // by this page
    std::optional<DaqApplication> application;
    std::optional<double> roundTripSeconds;  // of the newest request that was answered
    std::vector<WatchedDevice> devices;
    ClientStatistics statistics;
    std::uint64_t bytesReceived = 0;  // on the link; filled in by who watches it
};

// What a viewer asks for; kReopen is the unit's own, after a connection. The answer is called on
// the thread of orders: an empty text when it is done, else why not.
struct Order {
    enum class Kind { kOpen, kClose, kTakeOver, kHandBack, kQuery, kSend, kArm, kReopen };

    Kind kind;
    std::string name{};                 // kOpen
    ChildId child = 0;                  // kClose, kSend, kArm
    std::vector<std::uint8_t> bytes{};  // kSend
    std::function<void(const std::string& problem)> answer;
};

// Any thread, but for Collect.
class LiveUnit {
  public:
    struct Options {
        TransportFactory factory;
        std::shared_ptr<const DeviceFormats> formats;
        std::vector<std::string> devices{};    // to open from the start
        std::chrono::milliseconds retry{500};  // between attempts to connect
    };

    // `wake` is called when the state has changed, on the unit's own threads.
    LiveUnit(Options options, std::function<void()> wake);

    // Closes what is open at the unit, as far as it answers.
    ~LiveUnit();
    LiveUnit(const LiveUnit&) = delete;
    LiveUnit& operator=(const LiveUnit&) = delete;

    // Orders are carried out one after the other.
    void Add(Order order);

    // Passes on what has come since the last call, in its order. One thread, ten times a second or
    // more: a thread that waits for each block would cost more than the samples. It is also this
    // call that finds a link lost.
    using Take = std::function<void(const ChannelSamples& samples)>;
    void Collect(const Take& take);

    // Grows with each change of the state that is no mere count.
    [[nodiscard]] std::uint64_t StateNumber() const;
    [[nodiscard]] UnitState State() const;

    // Zero of all times.
    [[nodiscard]] std::chrono::system_clock::time_point Start() const { return startTime; }

  private:
    using Clock = std::chrono::steady_clock;
    struct Device;

    // The connecting thread.
    void StayConnected();
    bool Connect();

    // The collecting thread.
    [[nodiscard]] std::vector<std::shared_ptr<Device>> OpenDevices() const;
    void Pass(Device& device, const Block& block, const Take& take);
    void NameChannels(Device& device);

    // The thread of orders.
    void RunOrders();
    std::string Run(const Order& order);
    void OpenWanted();
    std::string Open(const std::string& name);
    std::string Close(ChildId child);
    std::string TakeOver();
    std::string HandBack();

    // Either of them. The unit's refusal stays in the device's `problem`.
    Expected<Done> OpenAtUnit(const std::shared_ptr<Device>& device);
    Expected<Done> Timed(const std::function<Expected<Done>(Client&)>& request);
    [[nodiscard]] Client* Connected() const;
    [[nodiscard]] std::vector<std::shared_ptr<Device>> Devices() const;
    void SetLink(LinkState link, const std::string& why);
    void CloseHere(Device& device) VEXA_REQUIRES(mutex);
    [[nodiscard]] ChildStatistics StatisticsOf(const Device& device) const VEXA_REQUIRES(mutex);
    void Change(const std::function<void()>& change);
    [[nodiscard]] double Seconds(Clock::time_point time) const;

    const Options options;
    const std::function<void()> wake;
    const Clock::time_point start = Clock::now();
    const std::chrono::system_clock::time_point startTime = std::chrono::system_clock::now();

    mutable vexa::Mutex mutex;
    std::condition_variable_any changed;
    std::unique_ptr<Client> client VEXA_GUARDED_BY(mutex);  // never replaced once it is there
    UnitState state VEXA_GUARDED_BY(mutex);                 // without devices and statistics
    std::uint64_t stateNumber VEXA_GUARDED_BY(mutex) = 0;
    std::vector<std::shared_ptr<Device>> devices VEXA_GUARDED_BY(mutex);
    std::deque<Order> orders VEXA_GUARDED_BY(mutex);
    ChildId nextChild VEXA_GUARDED_BY(mutex) = 0x1001;
    std::uint32_t nextChannel VEXA_GUARDED_BY(mutex) = 1;
    std::atomic<bool> isEnding = false;
    std::atomic<bool> isLeaving = false;

    std::thread connector;
    std::thread orderer;
};

}  // namespace vexahost::page
