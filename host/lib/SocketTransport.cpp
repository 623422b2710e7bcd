#include "vexahost/SocketTransport.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "PollDescriptor.h"

namespace vexahost {

namespace {

using Clock = std::chrono::steady_clock;

Error LinkLost(const std::string& why) {
    return {ErrorKind::kLinkLost, "the link is lost: " + why};
}

Error CannotConnect(const std::string& where, const std::string& why) {
    return {ErrorKind::kCannotConnect, "cannot connect to a unit at " + where + ": " + why};
}

// What keeps a host from a virtual unit's socket, and what to do when none runs: the socket is
// missing, or nobody listens at it any more.
std::string WhyNoUnit(int error, const std::string& path, bool isDirectory) {
    std::string why = std::strerror(error);
    if (error != ENOENT && error != ECONNREFUSED) return why;
    const bool isSocket = !isDirectory && path.ends_with(".sock");
    const std::string directory = isSocket ? path.substr(0, path.rfind('/') + 1) : path;
    return why + "; is a unit running there? Start one with: vexa-unit run --dir " +
           (directory.empty() ? "." : directory);
}

}  // namespace

Expected<std::unique_ptr<Transport>> SocketTransport::ConnectUnit(const std::string& path) {
    struct stat status {};
    const bool isDirectory = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const std::string socketPath = isDirectory ? path + "/" + kSocketName : path;

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        return CannotConnect(socketPath, "the path is too long for a socket");
    }
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);

    const int handle = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (handle < 0) return CannotConnect(socketPath, std::strerror(errno));
    auto transport = std::make_unique<SocketTransport>(handle, Framing::kFrameHeaders);
    if (connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return CannotConnect(socketPath, WhyNoUnit(errno, path, isDirectory));
    }
    return std::unique_ptr<Transport>(std::move(transport));
}

Expected<std::unique_ptr<Transport>> SocketTransport::ConnectTcp(const std::string& address) {
    const std::size_t colon = address.rfind(':');
    const std::string host = address.substr(0, colon);
    const std::string port = colon == std::string::npos ? kTcpPort : address.substr(colon + 1);

    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), port.c_str(), &wanted, &found);
    if (result != 0) return CannotConnect(address, gai_strerror(result));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);

    const int handle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (handle < 0) return CannotConnect(address, std::strerror(errno));
    auto transport = std::make_unique<SocketTransport>(handle, Framing::kNone);
    if (connect(handle, found->ai_addr, found->ai_addrlen) != 0) {
        return CannotConnect(address, std::strerror(errno));
    }
    return std::unique_ptr<Transport>(std::move(transport));
}

SocketTransport::SocketTransport(int connectedSocket, Framing unitFraming)
    : socketHandle(connectedSocket), framing(unitFraming) {}

SocketTransport::~SocketTransport() { close(socketHandle); }

Expected<std::size_t> SocketTransport::Read(std::span<std::uint8_t> buffer,
                                            std::chrono::milliseconds timeout) {
    if (!PollDescriptor(socketHandle, POLLIN, Clock::now() + timeout)) return std::size_t{0};
    const ssize_t count = recv(socketHandle, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0) return LinkLost("the unit closed the connection");
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return LinkLost(std::strerror(errno));
}

Expected<Done> SocketTransport::WriteAll(std::span<const std::uint8_t> bytes,
                                         std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!bytes.empty()) {
        const ssize_t count =
            send(socketHandle, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            if (!PollDescriptor(socketHandle, POLLOUT, deadline)) {
                return Error{ErrorKind::kTimeout, "the unit took no bytes in time"};
            }
        } else if (errno != EINTR) {
            return LinkLost(std::strerror(errno));
        }
    }
    return Done{};
}

void SocketTransport::Close() { shutdown(socketHandle, SHUT_RDWR); }

}  // namespace vexahost
