#include "soak/HostSession.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace vexa::soak {

namespace {

using vexahost::ChildId;
using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using Clock = std::chrono::steady_clock;

constexpr ChildId kController = 1;
constexpr ChildId kAccelerometer = 0x11;
constexpr ChildId kMicrophone = 0x12;
constexpr ChildId kThermometer = 0x13;

constexpr Milliseconds kEchoPatience{1500};
constexpr Milliseconds kPause{20};
constexpr std::uint8_t kSomeCommand = 0x33;
constexpr std::uint8_t kNoSession = 50;

// Sends unique bytes and receives blocks until they come back.
Expected<Done> Echo(Client& client, ChildId child, Milliseconds timeout) {
    static std::atomic<std::uint16_t> count{0};
    const std::uint16_t number = count++;
    // Neither a sample block nor the command to open the controller begins like this.
    std::array<std::uint8_t, 40> sent{0xE0, static_cast<std::uint8_t>(number),
                                      static_cast<std::uint8_t>(number >> 8U)};
    const auto deadline = Clock::now() + timeout;
    if (auto done = client.Send(child, sent); !done) return done;
    for (;;) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        const auto block = client.Receive(child, std::max(left, Milliseconds{0}));
        if (!block) return block.error();
        if (std::ranges::equal(block->bytes, sent)) return Done{};
    }
}

// Arms a HID device, which answers with a report.
Expected<Done> Arm(Client& client, ChildId child, Milliseconds timeout) {
    const std::array<std::uint8_t, 8> request{0x40};
    if (auto done = client.Send(child, request); !done) return done;
    const auto report = client.Receive(child, timeout);
    if (!report) return report.error();
    return Done{};
}

// The same result, but a timeout counts as success.
Expected<Done> Optional(Expected<Done> done) {
    if (!done && done.error().kind == ErrorKind::kTimeout) return Done{};
    return done;
}

template <typename Value>
Expected<Done> Only(const Expected<Value>& result) {
    if (!result) return result.error();
    return Done{};
}

using Step = std::function<Expected<Done>()>;

}  // namespace

std::string TrialScenario() {
    return R"({
  "devices": [{"name": "Accelerometer", "type": 8, "rate": 100, "blockSize": 100},
              {"name": "Microphone", "type": 11, "rate": 50, "blockSize": 245},
              {"name": "Thermometer", "type": 2, "rate": 20}],
  "daq": {"measurementRate": 50, "syncDelayMs": 2},
  "applications": {"DAQ": {"delayMs": 2}, "SPLASH": {"delayMs": 2}, "FGEN": {"delayMs": 2}}})";
}

bool Exercise(Client& client, const ExerciseOptions& options) {
    const Milliseconds time = options.patience;
    const auto echo = [&](ChildId child) { return Optional(Echo(client, child, kEchoPatience)); };
    const std::array<Step, kExerciseSteps> steps = {
        [&] { return Only(client.InitialSync(time)); },
        [&] { return client.OpenController(kController, true, time); },
        [&] { return Only(client.QueryDaqApplication(time)); },
        [&] { return client.SendMultiplexerCommand(kSomeCommand, {}, time); },
        [&] { return client.TakeDaqOver(2 * time); },
        [&] { return client.OpenDevice("Accelerometer", kAccelerometer, time); },
        [&] { return client.OpenDevice("Thermometer", kThermometer, time); },
        [&] { return echo(kAccelerometer); },
        [&] { return Optional(Arm(client, kThermometer, kEchoPatience)); },
        [&] { return client.OpenDevice("Microphone", kMicrophone, time); },
        [&] { return echo(kMicrophone); },
        [&] { return Optional(Only(client.ReceiveDaq(kEchoPatience))); },
        [&] { return client.CloseDevice(kMicrophone, time); },
        [&] { return client.CloseController(time); },
        [&] { return client.OpenController(kController, true, time); },
        [&] { return client.OpenDevice("Microphone", kMicrophone, time); },
        [&] { return client.OpenDevice("Accelerometer", kAccelerometer, time); },
    };
    for (std::size_t index = 0; index < steps.size(); ++index) {
        if (options.beforeStep) options.beforeStep(static_cast<int>(index));
        const auto done = steps[index]();
        if (done) continue;
        // Sending to a device that was refused is an invalid argument.
        const ErrorKind kind = done.error().kind;
        if (kind != ErrorKind::kRefused && kind != ErrorKind::kInvalidArgument) return false;
    }
    return true;
}

FreshSession HoldFreshSession(const vexahost::TransportFactory& cable, Milliseconds limit,
                              bool queryMayFail) {
    FreshSession session;
    const auto start = Clock::now();
    const auto left = [&] {
        return std::max(std::chrono::ceil<Milliseconds>(start + limit - Clock::now()),
                        Milliseconds{1});
    };
    const auto query = [&](Client& client) -> Expected<Done> {
        const auto answer = client.QueryDaqApplication(left());
        if (answer) return Done{};
        const bool allowed = queryMayFail && answer.error().kind == ErrorKind::kRefused &&
                             answer.error().code == kNoSession;
        if (allowed) return Done{};
        return answer.error();
    };
    const auto attempt = [&]() -> Expected<Done> {
        auto connected = Client::Connect(cable, {}, left());
        if (!connected) return connected.error();
        Client& client = **connected;
        if (auto done = client.OpenController(kController, false, left()); !done) return done;
        if (auto done = query(client); !done) return done;
        if (auto done = client.OpenDevice("Accelerometer", kAccelerometer, left()); !done) {
            return done;
        }
        if (auto done = Echo(client, kAccelerometer, left()); !done) return done;
        return client.CloseController(left());
    };
    for (;;) {
        const auto done = attempt();
        session.took = std::chrono::round<Milliseconds>(Clock::now() - start);
        const bool late = session.took > limit;
        if (done && !late) session.failure.clear();
        if (done && late) session.failure = "took " + std::to_string(session.took.count()) + " ms";
        if (!done) session.failure = done.error().message;
        const bool again = !done && !late && done.error().kind != ErrorKind::kRefused;
        if (!again) return session;
        ++session.reconnects;
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace vexa::soak
