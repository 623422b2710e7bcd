// Programs as an application: commands that take and give up the hardware.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "model/Scenario.h"

namespace vexa::unit {

// The command that `program` has for a session command (1 activate, 2 deactivate, 3 query, 4
// notify); empty when it has none.
[[nodiscard]] std::vector<std::string> CommandFor(const ProgramSettings& program,
                                                  std::uint32_t command);

// Runs `words`, without a shell, to its end. 1 when it exits with status 0, 0 when with another or
// when it cannot be run; -1 after `timeoutMs`, or when `isCancelled` becomes true: then its process
// group is ended, first by SIGTERM. What it prints goes to standard error, each line with the name
// of the application. Waits; any thread.
[[nodiscard]] std::int32_t RunApplication(const std::string& application,
                                          const std::vector<std::string>& words,
                                          std::uint32_t timeoutMs,
                                          const std::atomic<bool>& isCancelled);

}  // namespace vexa::unit
