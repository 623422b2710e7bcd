#include "tool/Exit.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <thread>

namespace vexahost::tool {

namespace {

std::atomic<bool> interrupted{false};
std::atomic<bool> terminated{false};
std::atomic<bool> leavingInOrder{false};
std::array<std::atomic<void (*)()>, 4> restoreAtSecond{};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
static_assert(std::atomic<void (*)()>::is_always_lock_free, "read by a signal handler");

void OnSignal(int number) {
    if (number != SIGINT) terminated = true;
    if (!interrupted.exchange(true)) return;
    for (const auto& place : restoreAtSecond) {
        if (void (*const restore)() = place) restore();
    }
    _exit(kExitInterrupted);
}

}  // namespace

ExitCode ReportError(const Error& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "vexa-host: %s\n", error.message.c_str());
    switch (error.kind) {
        case ErrorKind::kRefused:
            return kExitWrongAnswer;
        case ErrorKind::kInvalidArgument:
        case ErrorKind::kCannotConnect:
            return kExitUsage;
        case ErrorKind::kTimeout:
            return kExitTimeout;
        case ErrorKind::kLinkLost:
        case ErrorKind::kProtocolViolation:
            return kExitLinkLost;
        case ErrorKind::kBusy:
            return kExitBusy;
        case ErrorKind::kNotOpen:
            return kExitUsage;
        case ErrorKind::kCancelled:
            return kExitInterrupted;
    }
    return kExitWrongAnswer;
}

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(number, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);
}

bool IsInterrupted() { return interrupted; }

bool IsCancelled() { return interrupted && !leavingInOrder; }

void SetLeaving(bool leaving) { leavingInOrder = leaving; }

bool IsTerminated() { return terminated; }

void ForgetInterrupt() { interrupted = terminated.load(); }

AtSecondInterrupt::AtSecondInterrupt(void (*restore)()) {
    for (auto& each : restoreAtSecond) {
        void (*none)() = nullptr;
        if (!each.compare_exchange_strong(none, restore)) continue;
        place = &each;
        return;
    }
}

AtSecondInterrupt::~AtSecondInterrupt() {
    if (place != nullptr) *place = nullptr;
}

void WaitInterruptibly(std::chrono::steady_clock::time_point deadline) {
    constexpr std::chrono::milliseconds kSlice{50};
    for (auto now = std::chrono::steady_clock::now(); now < deadline && !IsInterrupted();
         now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_until(std::min(deadline, now + kSlice));
    }
}

}  // namespace vexahost::tool
