// Ctrl-C and termination, as a flag that every longer wait looks at.
#pragma once

/// From here on SIGINT, SIGTERM and SIGHUP set the flag instead of ending the program.
void CatchInterrupts();

/// True once such a signal has come.
bool IsInterrupted();
