// The scenarios that come with vexa-unit.
#pragma once

#include <string>
#include <vector>

namespace vexa::unit {

struct ShippedScenario {
    std::string name;
    std::string description;
};

// All there are, by name. Throws UserError when the folder of the scenarios cannot be found or one
// of them cannot be read.
[[nodiscard]] std::vector<ShippedScenario> ShippedScenarios();

// Path of the scenario file that `text` stands for: a shipped one of that name, or the path itself,
// absolute. Empty when `text` is. Throws UserError when it is neither.
[[nodiscard]] std::string FindScenario(const std::string& text);

}  // namespace vexa::unit
