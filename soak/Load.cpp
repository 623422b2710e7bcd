#include "soak/Load.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <thread>
#include <vector>

#include "soak/LoadChecker.h"
#include "soak/SoakUnit.h"

namespace vexa::soak {

namespace {

using vexahost::ChildId;
using vexahost::Client;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kEchoShare = 0.10;    // of all bytes from the unit
constexpr double kTunnelHeader = 8;    // bytes before each block
constexpr double kMeanEcho = 8 + 125;  // bytes with that header
constexpr int kStreamsOfEach = 3;
constexpr ChildId kControllerId = 1;
constexpr ChildId kFirstChild = 0x101;

constexpr Milliseconds kLoadPatience{10000};
constexpr Milliseconds kPoll{10};
constexpr Milliseconds kQueryPause{250};
constexpr Milliseconds kQuiet{1500};
constexpr int kMostAtOnce = 10;  // echoes in a row, when the sender was delayed

// The capacity of the output path in bytes per second: 10,000 bytes every 30 ms.
inline constexpr double kMostBytesPerSecond = 10000 / 0.030;

struct LoadResult {
    std::string failure;  // why the link was lost; empty: it was not
    double seconds = 0;
    double fromUnit = 0;  // bytes per second
    double toUnit = 0;
    std::chrono::milliseconds longestPause{0};  // longest time without a packet from the unit
    LoadCounts counts;
    std::uint64_t echoesSent = 0;
    std::uint64_t openings = 0;  // of controller and children; each has a reply, like each query
    std::uint64_t queries = 0;
    std::uint64_t taken = 0;    // blocks and echoes that the service accepted
    std::uint64_t refused = 0;  // and those that it refused

    // Blocks and echoes that were accepted but never received.
    [[nodiscard]] std::uint64_t Lost() const;
    // Everything that was sent arrived, once and in order.
    [[nodiscard]] bool IsClean() const;
};

std::uint64_t LoadResult::Lost() const {
    const auto came = counts.blocks + counts.echoes;
    return taken > came ? taken - came : 0;
}

bool LoadResult::IsClean() const {
    return failure.empty() && counts.Faults() == 0 && refused == 0 &&
           taken == counts.blocks + counts.echoes && counts.echoes == echoesSent &&
           counts.replies == queries + openings;
}

void PrintText(const LoadResult& result) {
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    const LoadCounts& counts = result.counts;
    std::printf("ten children (nine streams and the controller) for %.0f s\n", result.seconds);
    if (!result.failure.empty()) std::printf("ended: %s\n", result.failure.c_str());
    std::printf("from the unit  %8.0f B/s, %.1f %% of 10,000 bytes every 30 ms\n", result.fromUnit,
                100 * result.fromUnit / kMostBytesPerSecond);
    std::printf("to the unit    %8.0f B/s\n", result.toUnit);
    std::printf("               (whole tunnel packets; frame headers not counted)\n");
    std::printf("longest pause  %8lld ms\n", static_cast<long long>(result.longestPause.count()));
    std::printf("blocks %llu, echoes %llu of %llu, replies of the controller %llu\n",
                number(counts.blocks), number(counts.echoes), number(result.echoesSent),
                number(counts.replies));
    std::printf("sequence gaps %llu, missing %llu, duplicates %llu, wrong content %llu\n",
                number(counts.gaps), number(counts.missing), number(counts.duplicates),
                number(counts.wrong));
    std::printf("taken by the service but not received %llu, refused by it %llu\n",
                number(result.Lost()), number(result.refused));
    std::printf("%s\n", result.IsClean() ? "every byte came once, in order" : "LOST");
}

void PrintJson(const LoadResult& result) {
    const LoadCounts& counts = result.counts;
    const Json json = {{"seconds", result.seconds},
                       {"from_unit_bytes_per_s", result.fromUnit},
                       {"share", result.fromUnit / kMostBytesPerSecond},
                       {"to_unit_bytes_per_s", result.toUnit},
                       {"longest_pause_ms", result.longestPause.count()},
                       {"blocks", counts.blocks},
                       {"echoes_sent", result.echoesSent},
                       {"echoes", counts.echoes},
                       {"replies", counts.replies},
                       {"gaps", counts.gaps},
                       {"missing", counts.missing},
                       {"duplicates", counts.duplicates},
                       {"wrong", counts.wrong},
                       {"lost", result.Lost()},
                       {"refused", result.refused},
                       {"failure", result.failure},
                       {"clean", result.IsClean()}};
    std::printf("%s\n", json.dump().c_str());
}

void PrintLoad(const LoadResult& result, bool json) {
    if (json) {
        PrintJson(result);
    } else {
        PrintText(result);
    }
}

struct Device {
    const char* name;
    int type;
    std::size_t blockSize;
    const char* waveformName;
    vexa::unit::Waveform waveform;
};

// Different block sizes, so that packets begin and end anywhere in the chunks of the link.
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
    if (!result) throw std::runtime_error(std::string(what) + ": " + result.error().message);
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
            if (due > sinceStart + kMostAtOnce) {  // delayed: continue from now
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
    std::atomic<bool> failed{false};      // set by the thread, like those below
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

// Adds the unit's own counts, which stand still once its devices have stopped.
void ReadUnitCounts(SoakUnit& unit, LoadResult& result) {
    const Json state = unit.Ask({{"request", "state"}});
    for (const auto& stream : state.at("streams")) {
        result.taken += stream.at("taken").get<std::uint64_t>();
        result.refused += stream.at("refused").get<std::uint64_t>();
    }
}

void OpenAll(Client& client, LoadChecker& checker) {
    Need(client.OpenController(kControllerId, false, kLoadPatience), "open the controller");
    ChildId child = kFirstChild;
    for (const auto& device : kDevices) {
        for (int stream = 0; stream < kStreamsOfEach; ++stream, ++child) {
            checker.AddChild(child, device.blockSize,
                             {device.waveform, {vexa::unit::kDefaultSeed, device.name}});
            Need(client.OpenDevice(device.name, child, kLoadPatience), device.name);
        }
    }
}

LoadResult Measure(SoakUnit& unit, const LoadOptions& options) {
    LoadChecker checker(kControllerId);
    const vexahost::ClientOptions clientOptions{
        .queueCapacity = 1, .tap = [&](vexahost::Direction direction, auto packet) {
            if (direction == vexahost::Direction::kFromUnit) checker.Check(packet);
        }};
    auto connected = Client::Connect(unit.Cable(), clientOptions, kLoadPatience);
    Need(connected, "connect");
    Client& client = **connected;
    OpenAll(client, checker);

    EchoSender sender(client, kMostBytesPerSecond * options.share / 100 * kEchoShare / kMeanEcho);
    LoadResult result;
    result.openings = 1 + kStreams;
    const auto start = Clock::now();
    const auto bytesBefore = checker.Total().bytes;
    while (Clock::now() - start < options.time && !IsInterrupted() && result.failure.empty()) {
        const auto answer = client.QueryDaqApplication(kLoadPatience);
        if (!answer) result.failure = answer.error().message;
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
    if (!unit.AwaitStart(kLoadPatience)) throw std::runtime_error("the unit does not start");
    const LoadResult result = Measure(unit, options);
    PrintLoad(result, options.json);
    return result.IsClean() ? 0 : 1;
}

}  // namespace vexa::soak
