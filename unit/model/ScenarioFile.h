// Reads a scenario file.
#pragma once

#include <string>
#include <variant>

#include "model/Scenario.h"

namespace vexa::unit {

// Why a scenario cannot be used: one line with the file, the key's path and what was expected.
struct ScenarioError {
    std::string text;
};

// Reads and checks the JSON file at `path`. Every section and nearly every key is optional; what is
// left out is as in the default unit. A "devices" list replaces the default one.
[[nodiscard]] std::variant<Scenario, ScenarioError> LoadScenario(const std::string& path);

}  // namespace vexa::unit
