#include "Load.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Interrupt.h"
#include "LoadChecker.h"
#include "LoadReport.h"
#include "SoakUnit.h"

namespace vexa::soak {

namespace {

using vexahost::ChildId;
using vexahost::Client;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kEchoShare = 0.10;    // of all that comes back
constexpr double kTunnelHeader = 8;    // bytes before each block
constexpr double kMeanEcho = 8 + 125;  // bytes with that header
constexpr int kStreamsOfEach = 3;
constexpr ChildId kController = 1;
constexpr ChildId kFirstChild = 0x101;

constexpr Milliseconds kPatience{10000};
constexpr Milliseconds kPoll{10};
constexpr Milliseconds kQueryPause{250};
constexpr Milliseconds kQuiet{500};
constexpr int kMostAtOnce = 10;  // echoes, when the sender has been held up

struct Device {
    const char* name;
    int type;
    std::size_t blockSize;
    const char* waveformName;
    vexa::unit::Waveform waveform;
};

// Blocks of all lengths, so that packets begin and end everywhere in the chunks of the link.
constexpr std::array<Device, 3> kDevices = {{
    {"Accelerometer", 8, 245, "sine", vexa::unit::Waveform::kSine},
    {"Spectrometer", 9, 180, "noise", vexa::unit::Waveform::kNoise},
    {"Microphone", 11, 77, "ramp", vexa::unit::Waveform::kRamp},
}};
constexpr int kStreams = kStreamsOfEach * static_cast<int>(kDevices.size());

Json Scenario(double share) {
    Json scenario = {{"devices", Json::array()}};
    const double each = kMostBytesPerSecond * share / 100 * (1 - kEchoShare) / kStreams;
    for (const auto& device : kDevices) {
        scenario["devices"].push_back(
            {{"name", device.name},
             {"type", device.type},
             {"blockSize", device.blockSize},
             {"rate", each / (static_cast<double>(device.blockSize) + kTunnelHeader)},
             {"waveform", device.waveformName}});
    }
    return scenario;
}

template <typename Result>
void Need(const Result& result, const char* what) {
    if (!result) throw std::runtime_error(std::string(what) + ": " + result.Failure().message);
}

// Sends echoes to all children in turn, at a steady rate, until it is destroyed.
class EchoSender {
  public:
    EchoSender(Client& client_, double perSecond_)
        : client(client_), perSecond(perSecond_), thread([this] { Run(); }) {}
    ~EchoSender() { Stop(); }
    EchoSender(const EchoSender&) = delete;
    EchoSender& operator=(const EchoSender&) = delete;

    void Stop() {
        stop = true;
        if (thread.joinable()) thread.join();
    }

    [[nodiscard]] std::uint64_t Sent() const { return sent; }
    [[nodiscard]] std::uint64_t Bytes() const { return bytes; }

  private:
    void Run() {
        auto start = Clock::now();
        std::uint64_t sinceStart = 0;
        while (!stop && !failed) {
            const auto due =
                static_cast<std::uint64_t>(Seconds(Clock::now() - start).count() * perSecond);
            if (due > sinceStart + kMostAtOnce) {  // held up: go on from here
                start = Clock::now();
                sinceStart = 0;
                continue;
            }
            for (; sinceStart < due && !failed; ++sinceStart) SendOne();
            std::this_thread::sleep_for(kPoll);
        }
    }

    void SendOne() {
        const std::uint64_t number = sent;
        const auto child = kFirstChild + static_cast<ChildId>(number % kStreams);
        const auto echo = EchoOf(child, static_cast<std::uint32_t>(number / kStreams));
        failed = !client.Send(child, echo);
        bytes += echo.size() + static_cast<std::size_t>(kTunnelHeader);
        ++sent;
    }

    Client& client;
    const double perSecond;
    std::atomic<bool> stop{false};        // set by the owner, read by the thread
    std::atomic<bool> failed{false};      // set by the thread, as those below
    std::atomic<std::uint64_t> sent{0};   // echoes
    std::atomic<std::uint64_t> bytes{0};  // of whole tunnel packets
    std::thread thread;                   // last, as it uses all of the above
};

void AwaitQuiet(const LoadChecker& checker) {
    auto bytes = checker.Total().bytes;
    for (auto since = Clock::now(); Clock::now() - since < kQuiet;) {
        std::this_thread::sleep_for(kPoll);
        if (const auto now = checker.Total().bytes; now != bytes) {
            bytes = now;
            since = Clock::now();
        }
    }
}

// Lets the devices stop, so that the unit's own counts stand still, and reads these.
void ReadUnitCounts(SoakUnit& unit, LoadResult& result) {
    const Json state = unit.Ask({{"request", "state"}});
    for (const auto& stream : state.at("streams")) {
        result.taken += stream.at("taken").get<std::uint64_t>();
        result.refused += stream.at("refused").get<std::uint64_t>();
    }
}

void OpenAll(Client& client, LoadChecker& checker) {
    Need(client.OpenController(kController, false, kPatience), "open the controller");
    ChildId child = kFirstChild;
    for (const auto& device : kDevices) {
        for (int stream = 0; stream < kStreamsOfEach; ++stream, ++child) {
            checker.AddChild(child, device.blockSize, device.waveform);
            Need(client.OpenDevice(device.name, child, kPatience), device.name);
        }
    }
}

LoadResult Measure(SoakUnit& unit, const LoadOptions& options) {
    LoadChecker checker(kController);
    const vexahost::ClientOptions clientOptions{
        .queueCapacity = 1, .tap = [&](vexahost::Direction direction, auto packet) {
            if (direction == vexahost::Direction::kFromUnit) checker.Take(packet);
        }};
    auto connected = Client::Connect(unit.Cable(), clientOptions, kPatience);
    Need(connected, "connect");
    Client& client = **connected;
    OpenAll(client, checker);

    EchoSender sender(client, kMostBytesPerSecond * options.share / 100 * kEchoShare / kMeanEcho);
    LoadResult result;
    result.openings = 1 + kStreams;
    const auto start = Clock::now();
    const auto bytesBefore = checker.Total().bytes;
    while (Clock::now() - start < options.time && !IsInterrupted() && result.failure.empty()) {
        const auto answer = client.QueryDaqApplication(kPatience);
        if (!answer) result.failure = answer.Failure().message;
        ++result.queries;
        std::this_thread::sleep_for(kQueryPause);
    }
    result.seconds = Seconds(Clock::now() - start).count();
    result.fromUnit = static_cast<double>(checker.Total().bytes - bytesBefore) / result.seconds;
    result.toUnit = static_cast<double>(sender.Bytes()) / result.seconds;
    sender.Stop();
    result.longestPause = checker.LongestPause();

    for (const auto& device : kDevices) unit.Ask({{"request", "detach"}, {"name", device.name}});
    AwaitQuiet(checker);
    ReadUnitCounts(unit, result);
    result.echoesSent = sender.Sent();
    result.counts = checker.Total();
    return result;
}

}  // namespace

int RunLoad(const LoadOptions& options) {
    SoakUnit unit(options.unitProgram, Scenario(options.share));
    if (!unit.AwaitStart(kPatience)) throw std::runtime_error("the unit does not start");
    const LoadResult result = Measure(unit, options);
    PrintLoad(result, options.json);
    return result.IsClean() ? 0 : 1;
}

}  // namespace vexa::soak
