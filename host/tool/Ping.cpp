#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>

#include "tool/Connection.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "tool/Figures.h"
#include "tool/JsonObject.h"
#include "tool/Samples.h"
#include "tool/Verbs.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLeastSize = 8;

struct PingOptions {
    UnitAddress unit;
    std::string device;
    std::uint64_t count = 100;
    std::uint64_t size = kLeastSize;
    std::optional<Milliseconds> timeout;
    bool arm = false;
    bool json = false;
};

// Bytes that no other round trip has. The first is that of a plain report, for HID sensors; the
// fifth is the high byte of the number, never that of a command to the controller.
std::vector<std::uint8_t> Payload(std::uint64_t number, std::size_t size) {
    std::vector<std::uint8_t> bytes(size, 0x5A);
    const auto value = static_cast<std::uint32_t>(number);
    std::ranges::copy(std::array<std::uint8_t, kLeastSize>{0x01, 'p', 'n', 'g', 0,
                                                           static_cast<std::uint8_t>(value >> 16U),
                                                           static_cast<std::uint8_t>(value >> 8U),
                                                           static_cast<std::uint8_t>(value)},
                      bytes.begin());
    return bytes;
}

// The first block of the sensor for which `wanted` holds; all others are dropped.
template <typename Wanted>
Expected<Block> ReceiveUntil(Client& client, Clock::time_point deadline, Wanted wanted) {
    for (;;) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        auto block = client.Receive(kFirstDeviceId, std::max(left, Milliseconds{0}));
        if (!block || wanted(*block)) return block;
        if (Clock::now() >= deadline) return Error{ErrorKind::kTimeout, "no echo in time"};
    }
}

Expected<Done> Prepare(Client& client, const PingOptions& options) {
    auto opened = OpenDevice(client, options.unit, options.device, kFirstDeviceId);
    if (!opened) return opened;
    if (!options.arm) return Done{};
    if (auto sent = client.Send(kFirstDeviceId, HidInitRequest()); !sent) return sent;
    const auto answer =
        ReceiveUntil(client, Clock::now() + Client::kDefaultTimeout,
                     [](const Block& block) { return IsHidInitResponse(block.bytes); });
    if (!answer) return answer.error();
    return Done{};
}

Error Silent(const PingOptions& options) {
    return {ErrorKind::kTimeout,
            options.device + " has sent nothing back (a HID sensor must be armed: --arm)"};
}

Expected<Done> Measure(Client& client, const PingOptions& options, RoundTrips& trips) {
    constexpr Milliseconds kDefaultTimeout{1000};
    const auto first = Clock::now();
    for (std::uint64_t i = 0; i < options.count && !IsInterrupted(); ++i) {
        const auto payload = Payload(i, static_cast<std::size_t>(options.size));
        const auto start = Clock::now();
        if (auto sent = client.Send(kFirstDeviceId, payload); !sent) return sent;
        const auto echo = ReceiveUntil(
            client, start + options.timeout.value_or(kDefaultTimeout), [&](const Block& block) {
                return std::search(block.bytes.begin(), block.bytes.end(), payload.begin(),
                                   payload.end()) != block.bytes.end();
            });
        if (echo) {
            trips.Add(echo->receivedAt - start);
        } else if (echo.error().kind == ErrorKind::kTimeout) {
            trips.AddLost();
            // A sensor that has sent nothing at all will not answer the next request either.
            const auto counts = client.StatisticsOf(kFirstDeviceId);
            const bool isSilent = !counts || counts->blocks == 0;
            if (isSilent && Clock::now() - first >= kDefaultTimeout) return Silent(options);
        } else {
            return echo.error();
        }
    }
    return Done{};
}

void PrintJson(const PingOptions& options, const RoundTrips& trips) {
    JsonObject line;
    line.Add("device", options.device)
        .Add("bytes", options.size)
        .Add("sent", trips.Count() + trips.Lost())
        .Add("lost", trips.Lost());
    if (trips.Count() > 0) {
        line.Add("min_ms", trips.Percentile(0))
            .Add("median_ms", trips.Percentile(50))
            .Add("p95_ms", trips.Percentile(95))
            .Add("p99_ms", trips.Percentile(99))
            .Add("max_ms", trips.Percentile(100));
    }
    line.PrintLine();
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
    if (!client) return ReportError(client.error());
    if (const auto ready = Prepare(**client, options); !ready) return ReportError(ready.error());
    if (!options.json) {
        std::printf("%" PRIu64 " round trips of %" PRIu64 " bytes through %s at %s\n",
                    options.count, options.size, options.device.c_str(),
                    options.unit.Text().c_str());
        std::fflush(stdout);
    }
    RoundTrips trips;
    const auto measured = Measure(**client, options, trips);
    options.json ? PrintJson(options, trips) : PrintText(trips);
    if (IsInterrupted()) return kExitInterrupted;
    if (!measured) return ReportError(measured.error());
    return trips.Count() > 0 ? kExitDone : ReportError(Silent(options));
}

}  // namespace

Verb PingVerb() {
    const auto options = std::make_shared<PingOptions>();
    return {
        .name = "ping",
        .summary = "Measure round-trip times through the service and a sensor that echoes",
        .options = WithUnitOptions(
            options->unit,
            {{"NAME", " ", "name of the sensor", &options->device, true},
             {"-n", "N", "number of round trips (100)", Number{&options->count, 1, 1 << 24}},
             {"--size", "N", "bytes of each request, 8 to 245 (8)",
              Number{&options->size, kLeastSize, vexa::kMaxTunnelPayload}},
             {"--timeout", "TIME", "after which an echo counts as lost (1s)", &options->timeout},
             {"--arm", "", "send the init request first, for a HID sensor", &options->arm},
             {"--json", "", "the figures as a JSON object", &options->json}}),
        .notes =
            "Each request waits for its echo before the next is sent; sensors of virtual units "
            "echo.\n"
            "Examples: vexa-host ping Accelerometer -n 1000\n"
            "          vexa-host ping Thermometer --arm --json\n"
            "Exit code 3 when no echo came at all; the others: vexa-host --help.",
        .run = [options] { return RunPing(*options); }};
}

}  // namespace vexahost::tool
