// The program that stands for the unit, run by the demo.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "LineLog.h"
#include "vexahost/Expected.h"

class UnitProcess {
  public:
    /// Starts `command` (program, arguments) in a process group of its own, so that Ctrl-C reaches
    /// only this program, with no standard input and its outputs in Log(). kInvalidArgument when it
    /// cannot be started.
    static vexahost::Expected<std::unique_ptr<UnitProcess>> Start(
        const std::vector<std::string>& command);

    UnitProcess(pid_t process, int output);

    /// Kills the whole process group if it still runs.
    ~UnitProcess();
    UnitProcess(const UnitProcess&) = delete;
    UnitProcess& operator=(const UnitProcess&) = delete;

    LineLog& Log() { return log; }

    [[nodiscard]] pid_t Id() const { return process; }

    /// Asks the program to end.
    void Terminate() const;

    /// Its exit status (128 + the signal's number when one ended it); nothing when it still runs
    /// after `timeout`.
    std::optional<int> Wait(std::chrono::milliseconds timeout);

  private:
    const pid_t process;
    std::optional<int> status;  // once it has ended
    LineLog log;
};
