// What can be asked of a running unit.
#pragma once

#include <string>

namespace vexa::unit {

class Unit;

// Carries out the request in `line`, a JSON object, and returns the answer as one line of JSON:
// {"ok": true, ...}, or {"ok": false, "error": "..."} when the request cannot be carried out. The
// requests are those of docs/virtual-unit.md. Any thread.
[[nodiscard]] std::string AnswerControlLine(Unit& unit, const std::string& line);

}  // namespace vexa::unit
