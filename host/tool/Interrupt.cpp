#include "Interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "ExitCode.h"

namespace {

std::atomic<bool> interrupted{false};
std::atomic<void (*)()> restoreAtSecond{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
static_assert(std::atomic<void (*)()>::is_always_lock_free, "read by a signal handler");

void OnSignal(int) {
    if (!interrupted.exchange(true)) return;
    if (void (*const restore)() = restoreAtSecond) restore();
    _exit(kExitInterrupted);
}

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(number, &action, nullptr);
    }
}

bool IsInterrupted() { return interrupted; }

void ForgetInterrupt() { interrupted = false; }

void OnSecondInterrupt(void (*restore)()) { restoreAtSecond = restore; }

void WaitInterruptibly(std::chrono::steady_clock::time_point deadline) {
    constexpr std::chrono::milliseconds kLookUp{50};
    for (auto now = std::chrono::steady_clock::now(); now < deadline && !IsInterrupted();
         now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_until(std::min(deadline, now + kLookUp));
    }
}
