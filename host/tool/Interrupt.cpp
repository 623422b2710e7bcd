#include "Interrupt.h"

#include <signal.h>

#include <atomic>

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

void OnSignal(int) { interrupted = true; }

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

bool IsInterrupted() { return interrupted; }
