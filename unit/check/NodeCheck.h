// The USB gadget node.
#pragma once

#include <string>

#include "check/Report.h"

namespace vexa::unit {

// Opens the node as the service does, and asks for the cable's state. Nothing is read or written.
void CheckNode(const std::string& path, Report& report);

}  // namespace vexa::unit
