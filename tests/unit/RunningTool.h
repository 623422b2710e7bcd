// vexa-unit as a child process of a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "model/Descriptor.h"

namespace vexa::unit {

class RunningTool {
  public:
    // Starts vexa-unit with these arguments.
    explicit RunningTool(std::vector<std::string> arguments);
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;
    // Kills it if it is still running.
    ~RunningTool();

    // Reads standard output and error until `text` has come in either; false when that ended first.
    bool AwaitOutput(const std::string& text);

    // All output so far.
    [[nodiscard]] const std::string& Output() const { return output; }

    void Send(int signal) const;

    // Waits for its end. Its exit status, or the negative number of the signal that ended it. The
    // output is complete afterwards: whoever else had it open has ended as well.
    int Wait();

  private:
    // False at the end of the output.
    bool ReadMore();

    pid_t child = -1;
    Descriptor pipe;
    std::string output;
};

}  // namespace vexa::unit
