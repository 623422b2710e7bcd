#include "PollDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

namespace vexahost {

bool PollDescriptor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                    int stop) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        const auto wait = std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max());
        std::array<pollfd, 2> entries{{{descriptor, events, 0}, {stop, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(wait));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

}  // namespace vexahost
