// "vexa-unit check": what a real unit supplies, looked at before the service is run on it.
#pragma once

#include <string>
#include <vector>

namespace vexa::unit {

struct CheckOptions {
    std::string vexa;                  // file; empty: the one that the service would find
    std::string vexcri;                // likewise
    std::string node;                  // empty: the service's
    std::vector<std::string> devices;  // names to look up
    bool sessions = false;             // begin and end a conversation with each application
};

// Prints findings and a summary; 0 when there was nothing to say against the unit, else 1.
[[nodiscard]] int CheckUnit(const CheckOptions& options);

}  // namespace vexa::unit
