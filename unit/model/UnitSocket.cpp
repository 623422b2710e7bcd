#include "model/UnitSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "protocol/FrameHeader.h"

namespace vexa::unit {

using testkit::Descriptor;

namespace {

constexpr int kBacklog = 16;
constexpr timeval kPatience{10, 0};

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

// Whether there is something at `path`, and whether that is a socket.
enum class Occupant { kNone, kSocket, kOther };

Occupant OccupantOf(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return Occupant::kNone;
    return S_ISSOCK(status.st_mode) ? Occupant::kSocket : Occupant::kOther;
}

Descriptor NewSocket(int flags) {
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

}  // namespace

std::string HostSocketPath(const std::string& folder) { return folder + "/host.sock"; }

std::string ControlSocketPath(const std::string& folder) { return folder + "/control.sock"; }

bool FitsSocket(const std::string& path) { return AddressOf(path).has_value(); }

Descriptor ListenOn(const std::string& path) {
    const auto address = AddressOf(path);
    if (!address) {
        Fail(path, "the path may have " + std::to_string(sizeof address->sun_path - 1) +
                       " characters at most");
    }
    if (OccupantOf(path) == Occupant::kOther) {
        Fail(path, "there is a file of that name, which is no socket");
    }
    if (!RemoveStaleSocket(path)) Fail(path, "another unit is running there");
    Descriptor listener = NewSocket(SOCK_NONBLOCK);
    if (!listener || ::bind(listener.Get(), Generic(*address), sizeof *address) != 0 ||
        ::listen(listener.Get(), kBacklog) != 0) {
        Fail(path, std::strerror(errno));
    }
    return listener;
}

bool IsListening(const std::string& path) {
    const auto address = AddressOf(path);
    if (!address) return false;
    const Descriptor probe = NewSocket(SOCK_NONBLOCK);
    return ::connect(probe.Get(), Generic(*address), sizeof *address) == 0 || errno == EAGAIN;
}

bool RemoveStaleSocket(const std::string& path) {
    errno = 0;
    if (IsListening(path)) return false;
    // A refused connection shows that the socket's owner is gone.
    if (errno == ECONNREFUSED) RemoveSocket(path);
    return true;
}

void RemoveSocket(const std::string& path) {
    if (OccupantOf(path) == Occupant::kSocket) ::unlink(path.c_str());
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
    Descriptor made = NewSocket(0);
    // A program that accepts nobody lets a few connections wait, and then more only to connect.
    ::setsockopt(made.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    if (::connect(made.Get(), Generic(*address), sizeof *address) != 0) return {};
    return made;
}

Descriptor RefuseHost(Descriptor host) {
    (void)::send(host.Get(), kBusyHeader.data(), kBusyHeader.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    ::shutdown(host.Get(), SHUT_WR);
    return host;
}

bool HasNoDescriptor(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace vexa::unit
