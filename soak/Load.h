// Ten children at the most that the link carries, with the host sending at the same time.
#pragma once

#include <chrono>
#include <string>

namespace vexa::soak {

struct LoadOptions {
    std::string unitProgram;  // "vexa-unit"
    std::chrono::milliseconds time{60000};
    double share =
        96;  // percent of 10,000 bytes every 30 ms that the devices and their echoes make
    bool json = false;
};

// Runs and prints. The exit status: 0; 1 when anything was lost, came twice or was wrong, or less
// came than the devices sent.
int RunLoad(const LoadOptions& options);

}  // namespace vexa::soak
