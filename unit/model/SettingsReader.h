// Reads the settings of the unit's parts: from a scenario, and from a request that changes them
// while the unit runs.
#pragma once

#include "model/CheckedJson.h"
#include "model/Scenario.h"

namespace vexa::unit {

// Each function checks `node` and changes in its last argument what `node` gives; the rest stays.
// Throws JsonComplaint on the first thing that is wrong; what it changed by then is of no use.

void ReadDevice(const CheckedJson& node, DeviceSettings& device);
void ReadDaq(const CheckedJson& node, DaqSettings& daq);
void ReadApplication(const CheckedJson& node, ApplicationSettings& application);

}  // namespace vexa::unit
