// vexa-host: the host side of a unit's link, on the command line.
#include <csignal>
#include <cstdio>
#include <exception>

#include "testkit/StandardOutput.h"
#include "tool/CommandLine.h"
#include "tool/Verbs.h"

int main(int argc, char** argv) {
    using namespace vexahost::tool;
    try {
        vexa::testkit::KeepStandardNumbers();
        // A launcher that ignores the end of its children would hide that of ours.
        std::signal(SIGCHLD, SIG_DFL);
        const ExitCode code = RunProgram(
            {"vexa-host",
             "Talks to a unit as its host computer does.",
             "Try it: vexa-unit run --dir build/unit, and in another terminal:\n"
             "vexa-host stream Accelerometer Microphone. Each command's --help has examples.\n\n"
             "Exit codes: 0 done; 1 the unit refused or answered wrongly; 2 wrong usage, or no "
             "unit "
             "to\n"
             "connect to; 3 no answer in time; 4 the link was lost, or the unit broke the "
             "protocol;\n"
             "5 another host is connected to the unit; 6 standard output could not be written; "
             "130\n"
             "interrupted.",
             {DevicesVerb(), SyncVerb(), QueryVerb(), TakeoverVerb(), OpenVerb(), CloseVerb(),
              SendVerb(), StreamVerb(), PingVerb(), ShellVerb(), RecordVerb(), DecodeVerb(),
              ReplayVerb(), ServeVerb(), DemoVerb()}},
            {argv + 1, argv + argc});
        return vexa::testkit::CheckOutput("vexa-host", code, kExitOutput);
    } catch (const std::exception& error) {  // the system is out of memory or threads
        std::fprintf(stderr, "vexa-host: %s\n", error.what());
        return kExitWrongAnswer;
    }
}
