// Preloaded into the service where it runs as a daemon: its lines reach the log as they are
// printed. The service leaves its output to the C library, which collects some kilobytes of it
// before it writes to anything but a terminal.
#include <cstdio>

namespace {

__attribute__((constructor)) void PrintLineByLine() { std::setvbuf(stdout, nullptr, _IOLBF, 0); }

}  // namespace
