#include "vexahost/SocketTransport.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <future>
#include <optional>
#include <thread>
#include <utility>

#include "lib/Polling.h"
#include "testkit/Descriptor.h"

namespace vexahost {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using vexa::testkit::Descriptor;

Error CannotConnect(const std::string& where, const std::string& why) {
    return {ErrorKind::kCannotConnect, "cannot connect to a unit at " + where + ": " + why};
}

// Why there is no connection to a virtual unit's socket, with a hint when no unit runs: then the
// socket is missing, or nobody listens on it.
std::string WhyNoUnit(int error, const std::string& path, bool isDirectory) {
    std::string why = std::strerror(error);
    if (error != ENOENT && error != ECONNREFUSED) return why;
    const bool isSocket = !isDirectory && path.ends_with(".sock");
    const std::string directory = isSocket ? path.substr(0, path.rfind('/') + 1) : path;
    return why + "; is a unit running there? Start one with: vexa-unit run --dir " +
           (directory.empty() ? "." : directory);
}

Error Cancelled() { return {ErrorKind::kCancelled, "interrupted"}; }

constexpr milliseconds kSlice{50};  // how often a wait looks whether it was cancelled

// Waits for `done` to become true, which `wait` does up to a deadline. The error when the limits
// come first.
template <typename IsDone>
std::optional<Error> WaitWithin(const ConnectLimits& limits, const std::string& where,
                                IsDone isDone) {
    for (;;) {
        if (limits.IsCancelled()) return Cancelled();
        const auto now = Clock::now();
        if (isDone(std::min(limits.deadline, now + kSlice))) return std::nullopt;
        if (Clock::now() >= limits.deadline) return CannotConnect(where, "no answer in time");
    }
}

// Connects a non-blocking socket. Returns 0 or an error number; `error` is set when the limits came
// first.
int ConnectSocket(int handle, const sockaddr* address, socklen_t size, const ConnectLimits& limits,
                  const std::string& where, std::optional<Error>& error) {
    int result = connect(handle, address, size) == 0 ? 0 : errno;
    if (result ==
        EAGAIN) {  // a unit's socket whose queue of hosts is full: there is no event for it
        error = WaitWithin(limits, where, [&](Deadline until) {
            std::this_thread::sleep_until(std::min(until, Clock::now() + milliseconds(20)));
            result = connect(handle, address, size) == 0 ? 0 : errno;
            return result != EAGAIN;
        });
    } else if (result == EINPROGRESS || result == EINTR) {
        error = WaitWithin(limits, where, [&](Deadline until) {
            if (!PollDescriptor(handle, POLLOUT, until)) return false;
            socklen_t length = sizeof result;
            return getsockopt(handle, SOL_SOCKET, SO_ERROR, &result, &length) == 0;
        });
    }
    return result;
}

struct TcpAddress {
    std::string host;
    std::string port;
};

// Nothing when `text` is neither "HOST", "HOST:PORT" nor one of them with an address in brackets.
std::optional<TcpAddress> ParseTcpAddress(const std::string& text) {
    std::string_view host = text;
    std::string_view port = SocketTransport::kTcpPort;
    const std::size_t bracket = text.starts_with('[') ? text.find(']') : 0;
    if (bracket == std::string::npos) return std::nullopt;
    const std::size_t colon = text.find(':', bracket);
    if (colon != std::string::npos) {
        host = host.substr(0, colon);
        port = std::string_view(text).substr(colon + 1);
    }
    if (bracket > 0) {
        if (host.back() != ']') return std::nullopt;
        host = host.substr(1, host.size() - 2);
    }
    unsigned number = 0;
    const char* const end = port.data() + port.size();
    const auto [rest, fault] = std::from_chars(port.data(), end, number);
    const bool isPort = fault == std::errc{} && rest == end && number >= 1 && number <= 65535;
    if (host.empty() || !isPort) return std::nullopt;
    return TcpAddress{std::string(host), std::string(port)};
}

struct Lookup {
    using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

    int result = 0;
    Addresses addresses{nullptr, freeaddrinfo};
};

// Looks a name up. That has no time limit of its own, so it goes on without us when we give up.
Expected<Lookup> LookUp(const TcpAddress& address, const ConnectLimits& limits,
                        const std::string& where) {
    auto promise = std::make_shared<std::promise<Lookup>>();
    auto future = promise->get_future();
    std::thread([promise, address] {
        addrinfo wanted{};
        wanted.ai_family = AF_UNSPEC;
        wanted.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        Lookup lookup;
        lookup.result = getaddrinfo(address.host.c_str(), address.port.c_str(), &wanted, &found);
        if (lookup.result == 0) lookup.addresses.reset(found);
        promise->set_value(std::move(lookup));
    }).detach();
    const auto error = WaitWithin(limits, where, [&](Deadline until) {
        return future.wait_until(until) == std::future_status::ready;
    });
    if (error) return *error;
    Lookup lookup = future.get();
    if (lookup.result != 0) return CannotConnect(where, gai_strerror(lookup.result));
    return lookup;
}

// A unit whose network has gone is noticed within about ten seconds.
void SetTcpOptions(int handle) {
    const auto set = [handle](int level, int option, int value) {
        setsockopt(handle, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 5);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 2);
    set(IPPROTO_TCP, TCP_KEEPCNT, 3);
    set(IPPROTO_TCP, TCP_NODELAY, 1);
}

}  // namespace

Expected<std::unique_ptr<Transport>> SocketTransport::ConnectUnit(const std::string& path,
                                                                  const ConnectLimits& limits) {
    struct stat status {};
    const bool isDirectory = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const std::string socketPath = isDirectory ? path + "/" + kSocketName : path;

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        return CannotConnect(socketPath, "the path is too long for a socket");
    }
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);

    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (made.Get() < 0) return CannotConnect(socketPath, std::strerror(errno));
    std::optional<Error> ended;
    const int error = ConnectSocket(made.Get(), reinterpret_cast<const sockaddr*>(&address),
                                    sizeof address, limits, socketPath, ended);
    if (ended) return *ended;
    if (error != 0) return CannotConnect(socketPath, WhyNoUnit(error, path, isDirectory));
    return std::unique_ptr<Transport>(
        std::make_unique<SocketTransport>(made.Release(), Framing::kFrameHeaders));
}

Expected<std::unique_ptr<Transport>> SocketTransport::ConnectTcp(const std::string& address,
                                                                 const ConnectLimits& limits) {
    const auto parsed = ParseTcpAddress(address);
    if (!parsed) {
        return Error{ErrorKind::kInvalidArgument,
                     "\"" + address +
                         "\" is no address: expected HOST or HOST:PORT, PORT from 1 to 65535; an "
                         "IPv6 address in brackets"};
    }
    const auto lookup = LookUp(*parsed, limits, address);
    if (!lookup) return lookup.error();
    Error error = CannotConnect(address, "the name has no address");
    int left = 0;
    for (const addrinfo* each = lookup->addresses.get(); each != nullptr; each = each->ai_next) {
        ++left;
    }
    for (const addrinfo* each = lookup->addresses.get(); each != nullptr; each = each->ai_next) {
        Descriptor made(socket(each->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        // One that never answers leaves time for the others.
        const auto now = Clock::now();
        const ConnectLimits share{now + (limits.deadline - now) / left--, limits.isCancelled};
        std::optional<Error> ended;
        const int fault = made.Get() < 0 ? errno
                                         : ConnectSocket(made.Get(), each->ai_addr,
                                                         each->ai_addrlen, share, address, ended);
        if (ended && ended->kind == ErrorKind::kCancelled) return *ended;
        if (!ended && fault == 0) {
            SetTcpOptions(made.Get());
            return std::unique_ptr<Transport>(
                std::make_unique<SocketTransport>(made.Release(), Framing::kNone));
        }
        error = ended.value_or(CannotConnect(address, std::strerror(fault)));
    }
    return error;
}

SocketTransport::SocketTransport(int connectedSocket, Framing unitFraming)
    : socketHandle(connectedSocket), framing(unitFraming) {}

SocketTransport::~SocketTransport() { close(socketHandle); }

Expected<std::size_t> SocketTransport::Read(std::span<std::uint8_t> buffer,
                                            std::chrono::milliseconds timeout) {
    if (!PollDescriptor(socketHandle, POLLIN, DeadlineAfter(timeout))) return std::size_t{0};
    const ssize_t count = recv(socketHandle, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0) return LinkLost("the unit closed the connection");
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return LinkLost(std::strerror(errno));
}

Expected<std::size_t> SocketTransport::Write(std::span<const std::uint8_t> bytes,
                                             Deadline deadline) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const auto rest = bytes.subspan(sent);
        const ssize_t count =
            send(socketHandle, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            if (!PollDescriptor(socketHandle, POLLOUT, deadline)) break;
        } else if (errno != EINTR) {
            return LinkLost(std::strerror(errno));
        }
    }
    return sent;
}

void SocketTransport::Close() { shutdown(socketHandle, SHUT_RDWR); }

}  // namespace vexahost
