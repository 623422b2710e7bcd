// A program that is run beside this one, sharing its terminal.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "vexahost/Expected.h"

class Program {
  public:
    /// Starts `command` (program, arguments) with the variable VEXA_UNIT_DIR set to
    /// `unitDirectory`. kInvalidArgument when it cannot be started.
    static vexahost::Expected<Program> Start(const std::vector<std::string>& command,
                                             const std::string& unitDirectory);

    /// Its exit status (128 + the signal's number when one ended it); nothing while it runs.
    std::optional<int> Status();

    /// Asks it to end, waits, and kills it when it does not.
    int Stop();

  private:
    explicit Program(pid_t process_) : process(process_) {}

    pid_t process;
    std::optional<int> status;  // once it has ended
};
