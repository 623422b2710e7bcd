// vexa-unit as a child process.
#pragma once

#include <string>
#include <vector>

#include "testkit/ChildProcess.h"

namespace vexa::unit {

[[nodiscard]] inline testkit::ProcessCall ToolCall(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VEXA_UNIT_PROGRAM);
    return {.command = std::move(arguments), .withoutInput = true};
}

// Runs it to its end.
[[nodiscard]] inline testkit::Finished RunTool(std::vector<std::string> arguments) {
    return testkit::RunToEnd(ToolCall(std::move(arguments)).command);
}

}  // namespace vexa::unit
