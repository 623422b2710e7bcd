#include "model/HostSocket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vexa::unit {

namespace {

constexpr int kBacklog = 16;

[[noreturn]] void Fail(const std::string& path, const std::string& why) {
    throw std::runtime_error("cannot make the host socket " + path + ": " + why);
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        Fail(path, "the path may have " + std::to_string(sizeof address.sun_path - 1) +
                       " characters at most");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

Descriptor NewSocket(const std::string& path) {
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made) Fail(path, std::strerror(errno));
    return made;
}

// A refused connection tells that the socket's owner is gone.
void RemoveIfStale(const std::string& path, const sockaddr_un& address) {
    const Descriptor probe = NewSocket(path);
    if (::connect(probe.Get(), Generic(address), sizeof address) == 0 || errno == EAGAIN) {
        Fail(path, "another unit is running there");
    }
    if (errno == ECONNREFUSED) ::unlink(path.c_str());
}

}  // namespace

std::string HostSocketPath(const std::string& folder) { return folder + "/" + kHostSocketName; }

Descriptor ListenForHosts(const std::string& folder) {
    const std::string path = HostSocketPath(folder);
    const sockaddr_un address = AddressOf(path);
    RemoveIfStale(path, address);
    Descriptor listener = NewSocket(path);
    if (::bind(listener.Get(), Generic(address), sizeof address) != 0 ||
        ::listen(listener.Get(), kBacklog) != 0) {
        Fail(path, std::strerror(errno));
    }
    return listener;
}

bool ListensForHosts(int descriptor, const std::string& folder) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
    int listening = 0;
    socklen_t optionSize = sizeof listening;
    return address.sun_family == AF_UNIX && HostSocketPath(folder) == address.sun_path &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &optionSize) == 0 &&
           listening != 0;
}

}  // namespace vexa::unit
