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
void ReadCable(const CheckedJson& node, CableSettings& cable);

// The words that stand for the values.
[[nodiscard]] std::string_view WaveformName(Waveform waveform);
[[nodiscard]] std::string_view StrayTimeName(StrayTime when);

}  // namespace vexa::unit
