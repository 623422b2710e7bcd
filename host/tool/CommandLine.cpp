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
    command.add_option("--tcp", unit.tcp, "a unit that serves its link over TCP (port 38144)")
        ->option_text("HOST[:PORT]")
        ->excludes(directory);
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
