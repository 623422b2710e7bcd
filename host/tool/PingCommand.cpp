#include "PingCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Console.h"
#include "DeviceData.h"
#include "Interrupt.h"
#include "RoundTrips.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Packet.h"

namespace {

using vexahost::Block;
using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kLeastSize = 8;

struct PingOptions {
    UnitAddress unit;
    std::string device;
    int count = 100;
    std::size_t size = kLeastSize;
    std::optional<Milliseconds> timeout;
    bool arm = false;
    bool json = false;
};

// Bytes that no other round trip has. The first is that of a plain report, for HID sensors; the
// fifth is the high byte of the number, never that of a command to the controller.
std::vector<std::uint8_t> Payload(int number, std::size_t size) {
    std::vector<std::uint8_t> bytes(size, 0x5A);
    const auto value = static_cast<std::uint32_t>(number);
    std::ranges::copy(std::array<std::uint8_t, kLeastSize>{0x01, 'p', 'n', 'g', 0,
                                                           static_cast<std::uint8_t>(value >> 16U),
                                                           static_cast<std::uint8_t>(value >> 8U),
                                                           static_cast<std::uint8_t>(value)},
                      bytes.begin());
    return bytes;
}

// Receives what the sensor sends until a block is `wanted`, which it gives.
template <typename Wanted>
Expected<Block> ReceiveUntil(Client& client, Clock::time_point deadline, Wanted wanted) {
    for (;;) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        auto block = client.Receive(kFirstDeviceId, std::max(left, Milliseconds{0}));
        if (!block || wanted(*block)) return block;
        if (Clock::now() >= deadline)
            return vexahost::Error{ErrorKind::kTimeout, "no echo in time"};
    }
}

Expected<Done> Prepare(Client& client, const PingOptions& options) {
    if (auto opened = client.OpenDevice(options.device, kFirstDeviceId); !opened) return opened;
    if (!options.arm) return Done{};
    if (auto sent = client.Send(kFirstDeviceId, HidInitRequest()); !sent) return sent;
    const auto answer =
        ReceiveUntil(client, Clock::now() + Client::kDefaultTimeout,
                     [](const Block& block) { return IsHidInitResponse(block.bytes); });
    if (!answer) return answer.Failure();
    return Done{};
}

Expected<Done> Measure(Client& client, const PingOptions& options, RoundTrips& trips) {
    constexpr Milliseconds kDefaultTimeout{1000};
    for (int i = 0; i < options.count && !IsInterrupted(); ++i) {
        const auto payload = Payload(i, options.size);
        const auto start = Clock::now();
        if (auto sent = client.Send(kFirstDeviceId, payload); !sent) return sent;
        const auto echo = ReceiveUntil(
            client, start + options.timeout.value_or(kDefaultTimeout), [&](const Block& block) {
                return std::search(block.bytes.begin(), block.bytes.end(), payload.begin(),
                                   payload.end()) != block.bytes.end();
            });
        if (echo) {
            trips.Add(echo->receivedAt - start);
        } else if (echo.Failure().kind == ErrorKind::kTimeout) {
            trips.AddLost();
        } else {
            return echo.Failure();
        }
    }
    return Done{};
}

void PrintJson(const PingOptions& options, const RoundTrips& trips) {
    nlohmann::ordered_json line = {{"device", options.device},
                                   {"bytes", options.size},
                                   {"sent", trips.Count() + trips.Lost()},
                                   {"lost", trips.Lost()}};
    if (trips.Count() > 0) {
        line["min_ms"] = trips.Percentile(0);
        line["median_ms"] = trips.Percentile(50);
        line["p95_ms"] = trips.Percentile(95);
        line["p99_ms"] = trips.Percentile(99);
        line["max_ms"] = trips.Percentile(100);
    }
    std::printf("%s\n", line.dump().c_str());
}

void PrintText(const RoundTrips& trips) {
    std::printf("%zu round trips, %zu lost\n", trips.Count() + trips.Lost(), trips.Lost());
    if (trips.Count() == 0) return;
    std::printf("min %.2f ms, median %.2f ms, 95 %% %.2f ms, 99 %% %.2f ms, max %.2f ms\n",
                trips.Percentile(0), trips.Percentile(50), trips.Percentile(95),
                trips.Percentile(99), trips.Percentile(100));
    constexpr std::size_t kBar = 50;
    const std::size_t width = Console().Width();
    const std::size_t room = width > 30 ? width - 24 : 6;  // beside the bound and the number
    for (const std::string& row : trips.Histogram(std::min(kBar, room))) {
        std::printf("%s\n", row.c_str());
    }
}

ExitCode RunPing(const PingOptions& options) {
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.Failure());
    if (const auto ready = Prepare(**client, options); !ready) return ReportError(ready.Failure());
    CatchInterrupts();
    if (!options.json) {
        std::printf("%d round trips of %zu bytes through %s at %s\n", options.count, options.size,
                    options.device.c_str(), options.unit.Text().c_str());
        std::fflush(stdout);
    }
    RoundTrips trips;
    const auto measured = Measure(**client, options, trips);
    options.json ? PrintJson(options, trips) : PrintText(trips);
    if (!measured) return ReportError(measured.Failure());
    LeaveInOrder(**client);
    if (IsInterrupted()) return kExitInterrupted;
    if (trips.Count() > 0) return kExitDone;
    return ReportError(
        {ErrorKind::kTimeout,
         options.device + " has echoed nothing (a HID sensor must be armed: --arm)"});
}

}  // namespace

void AddPingCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "ping", "Measure round-trip times through the service and a sensor that echoes");
    const auto options = std::make_shared<PingOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("NAME", options->device, "name of the sensor")
        ->required()
        ->option_text(" ");
    command->add_option("-n", options->count, "number of round trips (100)")
        ->check(CLI::Range(1, 1 << 24))
        ->option_text("N");
    command->add_option("--size", options->size, "bytes of each request, 8 to 245 (8)")
        ->check(CLI::Range(kLeastSize, vexa::kMaxTunnelPayload))
        ->option_text("N");
    AddDurationOption(*command, "--timeout", options->timeout, "after which an echo is lost (1s)");
    command->add_flag("--arm", options->arm, "send the sensor, a HID one, its init request first");
    command->add_flag("--json", options->json, "the figures as a JSON object");
    command->footer(
        "Each request waits for its echo before the next is sent; sensors of virtual units echo.\n"
        "Examples: vexa-host ping Accelerometer -n 1000\n"
        "          vexa-host ping Thermometer --arm --json\n"
        "Exit code 3 when no echo came at all; the others: vexa-host --help.");
    OnChosen(*command, exitCode, [options] { return RunPing(*options); });
}
