// A host at the end of a unit's cable.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "model/Descriptor.h"
#include "model/HostSocket.h"

namespace vexa::unit {

// A connection to the host socket in `folder`; owns nothing when there is none to be had.
[[nodiscard]] inline Descriptor ConnectHost(const std::string& folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = HostSocketPath(folder);
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    Descriptor host(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(host.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    return host;
}

[[nodiscard]] inline bool AwaitReadable(const Descriptor& host) {
    pollfd entry{host.Get(), POLLIN, 0};
    return ::poll(&entry, 1, 30000) == 1;
}

// Waits for `size` bytes; fewer when the other end hangs up.
[[nodiscard]] inline std::string Receive(const Descriptor& host, std::size_t size) {
    std::string received(size, '\0');
    const auto got = ::recv(host.Get(), received.data(), size, MSG_WAITALL);
    received.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return received;
}

}  // namespace vexa::unit
