// The requests that a running unit carries out.
#pragma once

#include <string>

#include "model/ControlServer.h"

namespace vexa::unit {

class Unit;

// Carries out the request in `line`, a JSON object as docs/virtual-unit.md describes them. The
// answer is one line of JSON: {"ok": true, ...}, or {"ok": false, "error": "..."} when the request
// cannot be carried out. Any thread.
[[nodiscard]] ControlAnswer AnswerControlLine(Unit& unit, const std::string& line);

}  // namespace vexa::unit
