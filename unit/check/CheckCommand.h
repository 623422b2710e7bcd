// "vexa-unit check": checks the libraries and the node of a real unit before the service is run.
#pragma once

#include <string>
#include <vector>

namespace vexa::unit {

class Report;

struct CheckOptions {
    std::string vexa;                  // file; empty: the one that the service would load
    std::string vexcri;                // file; likewise
    std::string node;                  // empty: the service's
    std::vector<std::string> devices;  // names to look up
    bool sessions = false;             // begin and end a conversation with each application
};

// Prints findings and a summary. Returns the exit status: 0, or 1 when something is missing or odd.
[[nodiscard]] int CheckUnit(const CheckOptions& options);

// Its part for the device-access library: loads it (see SharedLibrary), initialises it, lists the
// devices of each type that the service uses, looks `devices` up, and uninitialises it. Opens no
// device.
void CheckVexa(const std::string& path, const std::vector<std::string>& devices, Report& report);

}  // namespace vexa::unit
