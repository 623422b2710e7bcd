#include "StreamCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "DeviceData.h"
#include "Interrupt.h"

namespace {

using vexahost::ChildId;
using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

struct StreamOptions {
    UnitAddress unit;
    std::vector<std::string> names;        // of the sensors
    std::set<std::string> arm;             // those of them that are to be sent the init request
    std::optional<Milliseconds> duration;  // nothing: until interrupted
};

ChildId IdOf(std::size_t index) { return kFirstDeviceId + static_cast<ChildId>(index); }

Expected<Done> OpenAll(Client& client, const StreamOptions& options) {
    if (auto opened = client.OpenController(kControllerId, false); !opened) return opened;
    for (std::size_t i = 0; i < options.names.size(); ++i) {
        if (auto opened = client.OpenDevice(options.names[i], IdOf(i)); !opened) return opened;
        if (!options.arm.contains(options.names[i])) continue;
        if (auto sent = client.Send(IdOf(i), HidInitRequest()); !sent) return sent;
    }
    return Done{};
}

// Prints all that has come of one device. Waits up to `wait` for the first block.
Expected<Done> PrintBlocks(Client& client, const std::string& name, ChildId id, Milliseconds wait) {
    for (;;) {
        const auto block = client.Receive(id, wait);
        if (!block) {
            if (block.Failure().kind == ErrorKind::kTimeout) return Done{};
            return block.Failure();
        }
        std::printf("%-14s %s\n", name.c_str(), DescribeBlock(block->bytes).c_str());
        wait = Milliseconds{0};
    }
}

Expected<Done> PrintUntil(Client& client, const StreamOptions& options, Clock::time_point end) {
    constexpr Milliseconds kPause{20};
    while (!IsInterrupted() && Clock::now() < end) {
        for (std::size_t i = 0; i < options.names.size(); ++i) {
            const Milliseconds wait = i == 0 ? kPause : Milliseconds{0};
            auto printed = PrintBlocks(client, options.names[i], IdOf(i), wait);
            if (!printed) return printed;
        }
        std::fflush(stdout);
    }
    return Done{};
}

// The figures of each device, with a hint for one that stayed silent.
void PrintTotals(const Client& client, const StreamOptions& options) {
    for (std::size_t i = 0; i < options.names.size(); ++i) {
        const auto counts = client.StatisticsOf(IdOf(i));
        if (!counts) continue;
        std::fprintf(stderr,
                     "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, %" PRIu64
                     " gaps in the sequence, %" PRIu64 " blocks dropped here%s\n",
                     options.names[i].c_str(), counts->blocks, counts->bytes, counts->sequenceGaps,
                     counts->dropped,
                     counts->blocks == 0 ? " (a HID sensor reports only when armed: --arm)" : "");
    }
}

ExitCode RunStream(const StreamOptions& options) {
    for (const std::string& name : options.arm) {
        if (std::ranges::find(options.names, name) == options.names.end()) {
            return ReportError({ErrorKind::kInvalidArgument,
                                "--arm " + name + ": not among the devices to stream"});
        }
    }
    CatchInterrupts();
    auto client = ConnectAndSync(options.unit);
    if (!client) return ReportError(client.Failure());
    if (const auto opened = OpenAll(**client, options); !opened) {
        return ReportError(opened.Failure());
    }
    // Counted from here: until the unit has seen the cable, half a second may have gone.
    const auto end = options.duration ? Clock::now() + *options.duration : Clock::time_point::max();
    const auto printed = PrintUntil(**client, options, end);
    PrintTotals(**client, options);
    return printed ? kExitDone : ReportError(printed.Failure());
}

}  // namespace

void AddStreamCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "stream", "Open sensors and print what they send, a line for each block");
    const auto options = std::make_shared<StreamOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("NAME", options->names, "names of the sensors")->required()->expected(1, 9);
    command->add_option("--arm", options->arm, "HID sensors that are to be sent the init request")
        ->option_text("NAME ...");
    AddDurationOption(*command, "--for", options->duration,
                      "how long, e.g. 3s, 500ms, 2m (until Ctrl-C)");
    command->footer(
        "Examples: vexa-host stream Accelerometer Microphone --for 3s\n"
        "          vexa-host stream Thermometer --arm Thermometer --for 10s");
    OnChosen(*command, exitCode, [options] { return RunStream(*options); });
}
