// A host at the end of a unit's cable.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "model/Descriptor.h"
#include "model/UnitSocket.h"

namespace vexa::unit {

// A connection to the host socket in `folder`; owns nothing when there is none to be had.
[[nodiscard]] inline Descriptor ConnectHost(const std::string& folder) {
    return ConnectTo(HostSocketPath(folder));
}

[[nodiscard]] inline bool AwaitReadable(const Descriptor& host) {
    pollfd entry{host.Get(), POLLIN, 0};
    return ::poll(&entry, 1, 30000) == 1;
}

[[nodiscard]] inline bool IsHungUp(const Descriptor& host) {
    pollfd entry{host.Get(), POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) != 0;
}

// Waits for `size` bytes; fewer when the other end hangs up.
[[nodiscard]] inline std::string Receive(const Descriptor& host, std::size_t size) {
    std::string received(size, '\0');
    const auto got = ::recv(host.Get(), received.data(), size, MSG_WAITALL);
    received.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return received;
}

}  // namespace vexa::unit
