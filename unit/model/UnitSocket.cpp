#include "model/UnitSocket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace vexa::unit {

namespace {

constexpr int kBacklog = 16;

[[noreturn]] void Fail(const std::string& path, const std::string& why) {
    throw std::runtime_error("cannot make the socket " + path + ": " + why);
}

// Nothing when the path is too long for a socket's address.
std::optional<sockaddr_un> AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return std::nullopt;
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

std::string HostSocketPath(const std::string& folder) { return folder + "/host.sock"; }

std::string ControlSocketPath(const std::string& folder) { return folder + "/control.sock"; }

Descriptor ListenOn(const std::string& path) {
    const auto address = AddressOf(path);
    if (!address) {
        Fail(path, "the path may have " + std::to_string(sizeof address->sun_path - 1) +
                       " characters at most");
    }
    RemoveIfStale(path, *address);
    Descriptor listener = NewSocket(path);
    if (::bind(listener.Get(), Generic(*address), sizeof *address) != 0 ||
        ::listen(listener.Get(), kBacklog) != 0) {
        Fail(path, std::strerror(errno));
    }
    return listener;
}

bool ListensOn(int descriptor, const std::string& path) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
    int listening = 0;
    socklen_t optionSize = sizeof listening;
    return address.sun_family == AF_UNIX && path == address.sun_path &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &optionSize) == 0 &&
           listening != 0;
}

Descriptor ConnectTo(const std::string& path) {
    const auto address = AddressOf(path);
    if (!address) {
        errno = ENAMETOOLONG;
        return {};
    }
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(made.Get(), Generic(*address), sizeof *address) != 0) return {};
    return made;
}

}  // namespace vexa::unit
