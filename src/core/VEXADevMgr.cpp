// The service VEXADevMgr: process entry, standard descriptors and termination signals.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "core/Service.h"
#include "foundation/OSThreading.h"

namespace {

// All state of the process. Never destroyed: threads of the libraries may still be around when main
// returns.
vexa::Service& service = *new vexa::Service;

// A launcher may close the standard descriptors. The next file that is opened would get their
// numbers, and what is printed would go onto the host link.
void FillStandardDescriptors() {
    int opened = 0;
    while (opened >= 0 && opened <= STDERR_FILENO) opened = open("/dev/null", O_RDWR);
    if (opened > STDERR_FILENO) close(opened);
}

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
    sigset_t needed;             // a launcher may have blocked them
    sigemptyset(&needed);
    sigaddset(&needed, IO_ABORT_SIGNAL);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction present {};
        sigaction(number, nullptr, &present);
        // nohup: the service is meant to outlive its terminal
        if (number == SIGHUP && present.sa_handler == SIG_IGN) continue;
        sigaction(number, &stop, nullptr);
        sigaddset(&needed, number);
    }
    pthread_sigmask(SIG_UNBLOCK, &needed, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is a failed write, not the end
}

}  // namespace

int main() {
    FillStandardDescriptors();
    InstallSignalHandlers();
    service.Run();
    return 0;
}
