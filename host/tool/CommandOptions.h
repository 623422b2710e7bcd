// Options that several commands have.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "Connection.h"

/// Adds "--unit DIR" and gives `directory` its default.
inline void AddUnitOption(CLI::App& command, std::string& directory) {
    directory = DefaultUnitDirectory();
    command
        .add_option("--unit", directory,
                    "directory of the unit, or its host socket ($VEXA_UNIT_DIR, else build/unit)")
        ->option_text("DIR");
}

/// A duration such as "3s", "500ms", "2m" or "1.5" (seconds), more than 0 and at most a day.
std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text);
