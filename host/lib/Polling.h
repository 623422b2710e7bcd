// What transports over a descriptor have in common. Any thread.
#pragma once

#include <string>

#include "vexahost/Transport.h"

namespace vexahost {

// Waits until one of `events`, or the end of the connection, can be seen at `descriptor`, or until
// `stop`, if it is not negative, becomes readable. False when `deadline` came first; signals do not
// move it.
bool PollDescriptor(int descriptor, short events, Deadline deadline, int stop = -1);

[[nodiscard]] Error LinkLost(const std::string& why);

}  // namespace vexahost
