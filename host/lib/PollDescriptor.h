// Waiting for a descriptor, with a deadline that signals do not move.
#pragma once

#include <poll.h>

#include <chrono>

namespace vexahost {

/// Waits until one of `events` or an end can be seen at `descriptor`, or until `stop`, if it is not
/// negative, becomes readable. False when `deadline` came first.
bool PollDescriptor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                    int stop = -1);

}  // namespace vexahost
