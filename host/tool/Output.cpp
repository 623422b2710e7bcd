#include "tool/Output.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tool/Exit.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kWriteSlice{50};  // how often a wait looks for an interrupt

}  // namespace

// A pipe that can be written takes PIPE_BUF bytes without waiting.
bool PatientOutput::WriteSome(milliseconds wait) {
    pollfd entry{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&entry, 1, static_cast<int>(wait.count())) != 1) return true;
    if ((entry.revents & POLLERR) != 0) return isOpen = false;
    const ssize_t count =
        write(STDOUT_FILENO, pending.data(), std::min<std::size_t>(pending.size(), PIPE_BUF));
    if (count > 0) {
        pending.erase(0, static_cast<std::size_t>(count));
    } else if (count < 0 && errno != EINTR && errno != EAGAIN) {
        if (errno != EPIPE) fault = std::strerror(errno);
        return isOpen = false;
    }
    return true;
}

bool PatientOutput::Write(Clock::time_point deadline) {
    while (isOpen && !pending.empty() && !IsInterrupted()) {
        const auto now = Clock::now();
        const auto left = std::chrono::ceil<milliseconds>(deadline - now);
        if (!WriteSome(std::clamp(left, milliseconds{0}, kWriteSlice))) break;
        if (now >= deadline) break;
    }
    return isOpen;
}

std::size_t PatientOutput::Finish() {
    constexpr std::chrono::seconds kPatience{1};
    const auto end = Clock::now() + kPatience;
    while (isOpen && !pending.empty() && Clock::now() < end) {
        if (!WriteSome(kWriteSlice)) break;
    }
    return pending.size();
}

}  // namespace vexahost::tool
