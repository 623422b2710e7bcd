// What the commands' declarations on the command line share.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Connection.h"
#include "ExitCode.h"

namespace CLI {
class App;
}

/// Declares a command: adds it to `program` with its options, and has it put its exit code into
/// `exitCode`, which lives as long as `program`, when it is the one that is chosen.
using AddCommand = void(CLI::App& program, ExitCode& exitCode);

/// Adds the options that say where the unit is, and gives `unit` its default.
void AddUnitOptions(CLI::App& command, UnitAddress& unit);

/// Adds an option that takes a time such as "3s"; it lands in `duration`.
void AddDurationOption(CLI::App& command, const std::string& name,
                       std::optional<std::chrono::milliseconds>& duration,
                       const std::string& description);

/// Has `run` called when `command` is chosen, its result put into `exitCode`.
void OnChosen(CLI::App& command, ExitCode& exitCode, std::function<ExitCode()> run);
