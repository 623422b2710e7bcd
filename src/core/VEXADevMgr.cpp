// The service VEXADevMgr: process entry and termination signals.

#include <csignal>

#include "core/Service.h"

namespace {

// All state of the process. Never destroyed: threads of the libraries may still be around when main
// returns.
vexa::Service& service = *new vexa::Service;

// The first signal ends the main loop, and the hardware goes back to the applications. A second one
// ends the process at once, for when that hangs.
void HandleTermination(int signalNumber) {
    if (!service.Stop()) return;
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber);
}

void InstallSignalHandlers() {
    struct sigaction stop {};
    stop.sa_handler = HandleTermination;
    sigemptyset(&stop.sa_mask);
    stop.sa_flags = SA_RESTART;  // whichever thread it meets goes on with its call
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is a failed write, not the end
}

}  // namespace

int main() {
    InstallSignalHandlers();
    service.Run();
    return 0;
}
