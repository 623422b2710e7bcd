#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include "Duration.h"

void AddUnitOptions(CLI::App& command, UnitAddress& unit) {
    unit.directory = DefaultUnitDirectory();
    auto* directory =
        command
            .add_option(
                "--dir", unit.directory,
                "directory of the unit, or its host socket ($VEXA_UNIT_DIR, else build/unit)")
            ->option_text("DIR");
    auto* tcp =
        command.add_option("--tcp", unit.tcp, "a unit that serves its link over TCP (port 38144)")
            ->option_text("HOST[:PORT]")
            ->excludes(directory);
    auto* serial = command
                       .add_option("--serial", unit.serial,
                                   "a unit at the end of a serial line (38400 baud, raw, 8N1)")
                       ->option_text("PATH[:BAUD]")
                       ->excludes(directory)
                       ->excludes(tcp);
    command.add_flag("--rts-cts", unit.flowControl, "flow control on the serial line")
        ->needs(serial);
}

void AddDurationOption(CLI::App& command, const std::string& name,
                       std::optional<std::chrono::milliseconds>& duration,
                       const std::string& description) {
    command
        .add_option_function<std::string>(
            name,
            [name, &duration](const std::string& text) {
                duration = ParseDuration(text);
                if (!duration) {
                    throw CLI::ValidationError(name + " " + text,
                                               "expected a time such as 3s, 500ms or 2m");
                }
            },
            description)
        ->option_text("TIME");
}

void OnChosen(CLI::App& command, ExitCode& exitCode, std::function<ExitCode()> run) {
    command.callback([&exitCode, run = std::move(run)] { exitCode = run(); });
}
