// The program that runs on the unit.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <vector>

#include "run/StandIns.h"

namespace vexa::unit {

// Path of a program: as given when that has a slash, else looked up in PATH. Throws UserError when
// there is no such program or it cannot be run.
[[nodiscard]] std::string FindProgram(const std::string& name);

// What to start, and how.
struct ProgramCall {
    std::string path;
    std::vector<std::string> arguments;  // the program's name first
    EnvironmentChanges changes;
    std::vector<int> inherited;  // descriptors that stay open in the program
};

// A started program, which ends with this process at the latest. Signals to end this process are
// held back from construction on and reach the program through Wait(). Needs a process without
// other threads.
class Program {
  public:
    // Throws UserError when the program cannot be started.
    explicit Program(const ProgramCall& call);

    // Passes SIGTERM, SIGINT and SIGHUP on until the program has ended; returns its exit status, or
    // 128 plus the number of the signal that ended it. Once.
    [[nodiscard]] int Wait();

  private:
    [[noreturn]] void BecomeProgram(const ProgramCall& call, int failurePipe) const;

    const pid_t parent;
    sigset_t formerMask{};
    pid_t child = -1;
};

}  // namespace vexa::unit
