// "vexa-unit devices": what this machine has that can be a unit's device.
#pragma once

namespace vexa::unit {

struct DevicesOptions {
    bool json = false;
    bool scenario = false;  // prints a scenario with them
};

// Returns the exit status.
[[nodiscard]] int ListDevices(const DevicesOptions& options);

}  // namespace vexa::unit
