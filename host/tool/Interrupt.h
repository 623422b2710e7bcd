// Ctrl-C and termination, as a flag that every longer wait looks at.
#pragma once

#include <chrono>

/// From here on SIGINT, SIGTERM, SIGHUP and SIGQUIT set the flag instead of ending the program. A
/// second signal while the flag is set ends it at once, with exit code 130.
void CatchInterrupts();

/// True once such a signal has come.
bool IsInterrupted();

/// Forgets the signal, for programs that go on after an interrupted command.
void ForgetInterrupt();

/// What the second signal does before it ends the program, e.g. to set a terminal right; null for
/// nothing. It may do only what a signal handler may.
void OnSecondInterrupt(void (*restore)());

/// Waits until `deadline`, or until interrupted.
void WaitInterruptibly(std::chrono::steady_clock::time_point deadline);
