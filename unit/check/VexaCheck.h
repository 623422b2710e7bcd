// The device-access library.
#pragma once

#include <string>
#include <vector>

#include "check/Report.h"

namespace vexa::unit {

// Loads the library (see SharedLibrary), brings it up and down, lists the devices of each type that
// the service uses, and looks `devices` up. No device is opened.
void CheckVexa(const std::string& path, const std::vector<std::string>& devices, Report& report);

}  // namespace vexa::unit
