// The library for conversations with the unit's applications.
#pragma once

#include <string>

#include "check/Report.h"

namespace vexa::unit {

// Loads the library (see SharedLibrary); with `sessions` also begins and ends a conversation with
// each application that the service talks to. No command is sent.
void CheckCri(const std::string& path, bool sessions, Report& report);

}  // namespace vexa::unit
