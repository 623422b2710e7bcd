#include "vexahost/Transport.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include "lib/Polling.h"

namespace vexahost {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

}  // namespace

Deadline DeadlineAfter(milliseconds timeout) {
    const auto now = Clock::now();
    const auto most = std::chrono::floor<milliseconds>(Deadline::max() - now);
    return timeout >= most ? Deadline::max() : now + timeout;
}

Expected<Done> Transport::WriteAll(std::span<const std::uint8_t> bytes, Deadline deadline) {
    const auto sent = Write(bytes, deadline);
    if (!sent) return sent.error();
    if (*sent == bytes.size()) return Done{};
    return Error{ErrorKind::kTimeout, "the unit accepted no bytes in time"};
}

bool PollDescriptor(int descriptor, short events, Deadline deadline, int stop) {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        const auto wait = std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max());
        std::array<pollfd, 2> entries{{{descriptor, events, 0}, {stop, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(wait));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

Error LinkLost(const std::string& why) {
    return {ErrorKind::kLinkLost, "the link is lost: " + why};
}

}  // namespace vexahost
