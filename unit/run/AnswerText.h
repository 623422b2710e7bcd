// A unit's answers to control requests, for people to read.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace vexa::unit {

// Lines, each with its end; none for an answer that says no more than that all is well.
[[nodiscard]] std::string AnswerText(const nlohmann::ordered_json& answer);

}  // namespace vexa::unit
