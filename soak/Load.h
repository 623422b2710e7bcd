// Runs ten children at the highest rate that the link carries, while the host sends, too.
#pragma once

#include <chrono>
#include <string>

namespace vexa::soak {

struct LoadOptions {
    std::string unitProgram;  // "vexa-unit"
    std::chrono::milliseconds time{60000};
    double share = 96;  // load of devices and echoes, in percent of 10,000 bytes every 30 ms
    bool json = false;
};

// Runs and prints the result. Returns the exit status: 0, or 1 when anything was lost, duplicated
// or wrong.
int RunLoad(const LoadOptions& options);

}  // namespace vexa::soak
