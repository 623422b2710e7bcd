#include "OpenCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Interrupt.h"

namespace {

using vexahost::ChildId;
using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

struct OpenOptions {
    UnitAddress unit;
    std::vector<std::string> names;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool json = false;
};

void PrintOpened(const std::string& name, ChildId id, const Expected<Done>& opened, bool json) {
    if (json) {
        nlohmann::json line = {{"device", name}, {"child", id}, {"opened", bool{opened}}};
        if (!opened) line["error"] = opened.Failure().message;
        std::printf("%s\n", line.dump().c_str());
    } else if (opened) {
        std::printf("%s is open as child 0x%X\n", name.c_str(), id);
    }
    std::fflush(stdout);
}

// Until the time is up, Ctrl-C, or the end of the link.
Expected<Done> Hold(const Client& client, std::optional<Milliseconds> duration) {
    constexpr Milliseconds kLookUp{100};
    const auto end = duration ? Clock::now() + *duration : Clock::time_point::max();
    while (Clock::now() < end && !IsInterrupted()) {
        if (auto error = client.LinkError()) return *error;
        WaitInterruptibly(std::min(end, Clock::now() + kLookUp));
    }
    return Done{};
}

ExitCode RunOpen(const OpenOptions& options) {
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.Failure());
    ExitCode result = kExitDone;
    std::size_t open = 0;
    for (std::size_t i = 0; i < options.names.size(); ++i) {
        const ChildId id = kFirstDeviceId + static_cast<ChildId>(i);
        const auto opened = (*client)->OpenDevice(options.names[i], id);
        PrintOpened(options.names[i], id, opened, options.json);
        if (opened) {
            ++open;
            continue;
        }
        result = ReportError(opened.Failure());
        if (opened.Failure().kind != ErrorKind::kRefused) return result;
    }
    if (open == 0) return result;
    CatchInterrupts();
    if (!options.duration) std::fprintf(stderr, "vexa-host: held open until Ctrl-C\n");
    const auto held = Hold(**client, options.duration);
    if (!held) return ReportError(held.Failure());
    LeaveInOrder(**client);
    return result;
}

}  // namespace

void AddOpenCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "open", "Open devices, say how each went, and hold them open until Ctrl-C");
    const auto options = std::make_shared<OpenOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("NAME", options->names, "device names")
        ->required()
        ->expected(1, 100)
        ->option_text(" ");
    AddDurationOption(*command, "--for", options->duration, "how long to hold them (until Ctrl-C)");
    command->add_flag("--json", options->json, "a JSON object for each device");
    command->footer(
        "A name stands for a type of device: the unit opens the first one of that type. It has no\n"
        "way to list its devices; for a virtual unit, \"vexa-unit ctl state\" does. The devices\n"
        "are open as long as this command runs; at its end it closes the controller.\n"
        "Nine can be open beside the controller.\n"
        "Example: vexa-host open Accelerometer Microphone --for 10s\n"
        "Exit code 1 when one was refused; the others: vexa-host --help.");
    OnChosen(*command, exitCode, [options] { return RunOpen(*options); });
}
