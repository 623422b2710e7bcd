#include "TakeoverCommand.h"

#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Interrupt.h"

namespace {

using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

struct TakeoverOptions {
    UnitAddress unit;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool json = false;
};

struct DaqCounts {
    std::uint64_t packets = 0;
    std::uint64_t wrongChecksums = 0;
};

Expected<Done> CountUntil(Client& client, Clock::time_point end, DaqCounts& counts) {
    constexpr Milliseconds kLookUp{50};
    while (Clock::now() < end && !IsInterrupted()) {
        const auto packet = client.ReceiveDaq(kLookUp);
        if (packet) {
            ++counts.packets;
            if (!packet->checksumRight) ++counts.wrongChecksums;
        } else if (packet.Failure().kind != ErrorKind::kTimeout) {
            return packet.Failure();
        }
    }
    return Done{};
}

void PrintCounts(const DaqCounts& counts, Clock::duration held, bool json) {
    const double seconds = std::chrono::duration<double>(held).count();
    if (json) {
        const nlohmann::json line = {{"held_s", seconds},
                                     {"daq_packets", counts.packets},
                                     {"wrong_checksums", counts.wrongChecksums}};
        std::printf("%s\n", line.dump().c_str());
        return;
    }
    std::printf("held for %.1f s: %" PRIu64 " DAQ packets, %" PRIu64 " with a wrong checksum\n",
                seconds, counts.packets, counts.wrongChecksums);
}

ExitCode RunTakeover(const TakeoverOptions& options) {
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.Failure());
    if (const auto taken = (*client)->TakeDaqOver(); !taken) return ReportError(taken.Failure());
    CatchInterrupts();
    if (!options.json) {
        std::printf("the DAQ is this host's%s\n", options.duration ? "" : " until Ctrl-C");
        std::fflush(stdout);
    }
    DaqCounts counts;
    const auto start = Clock::now();
    const auto end = options.duration ? start + *options.duration : Clock::time_point::max();
    const auto held = CountUntil(**client, end, counts);
    PrintCounts(counts, Clock::now() - start, options.json);
    if (!held) return ReportError(held.Failure());
    // Hands the hardware back in order; leaving alone would do it as well.
    const auto closed = (*client)->CloseController();
    return closed ? kExitDone : ReportError(closed.Failure());
}

}  // namespace

void AddTakeoverCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "takeover",
        "Take the acquisition hardware from the unit's applications, hold it, give back");
    const auto options = std::make_shared<TakeoverOptions>();
    AddUnitOptions(*command, options->unit);
    AddDurationOption(*command, "--for", options->duration, "how long to hold it (until Ctrl-C)");
    command->add_flag("--json", options->json, "the figures at the end as a JSON object");
    command->footer(
        "The applications have 10 s to let go. To see what the DAQ measures: vexa-host stream "
        "--daq\n"
        "Example: vexa-host takeover --for 10s");
    OnChosen(*command, exitCode, [options] { return RunTakeover(*options); });
}
