// How vexa-host ends: exit codes, errors on standard error, and Ctrl-C as a flag.
#pragma once

#include <atomic>
#include <chrono>

#include "vexahost/Error.h"

namespace vexahost::tool {

// The same for every verb.
enum ExitCode : int {
    kExitDone = 0,
    kExitWrongAnswer = 1,  // the unit refused, or did not behave as it should
    kExitUsage = 2,        // wrong arguments, or no unit to connect to
    kExitTimeout = 3,
    kExitLinkLost = 4,  // the link ended, or the unit broke the protocol
    kExitBusy = 5,      // another host is connected to the unit
    kExitOutput = 6,    // standard output could not be written
    kExitInterrupted = 130,
};

// Prints the error as one line on standard error and returns the exit code for it.
ExitCode ReportError(const Error& error);

// From now on SIGINT, SIGTERM, SIGHUP and SIGQUIT set a flag instead of ending the program. A
// second signal while the flag is set ends it at once, with exit code 130. A closed pipe sends no
// signal any more.
void CatchInterrupts();

// True once such a signal has come. Every longer wait checks it. Any thread.
bool IsInterrupted();

// As IsInterrupted, but false while a verb leaves its unit in order. Any thread.
bool IsCancelled();

// From now on, or no longer, the verb leaves its unit in order.
void SetLeaving(bool leaving);

// True once one of them other than SIGINT has come: it ends also a program that goes on after an
// interrupted command.
bool IsTerminated();

// Clears the flag, for programs that go on after an interrupted command.
void ForgetInterrupt();

// As long as it lives, the second signal calls `restore` before it ends the program: there are no
// destructors then that would restore a terminal or remove a file. `restore` must be safe in a
// signal handler. At most four at a time.
class AtSecondInterrupt {
  public:
    explicit AtSecondInterrupt(void (*restore)());
    ~AtSecondInterrupt();
    AtSecondInterrupt(const AtSecondInterrupt&) = delete;
    AtSecondInterrupt& operator=(const AtSecondInterrupt&) = delete;

  private:
    std::atomic<void (*)()>* place = nullptr;
};

// Waits until `deadline` or an interrupt.
void WaitInterruptibly(std::chrono::steady_clock::time_point deadline);

}  // namespace vexahost::tool
