#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <future>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

#include "testkit/Descriptor.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

namespace vexahost {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using vexa::testkit::Descriptor;

// Waits until one of `events`, or the end of the connection, can be seen at `descriptor`, or until
// `stop`, if it is not negative, becomes readable. False when `deadline` came first; signals do not
// move it.
bool PollDescriptor(int descriptor, short events, Deadline deadline, int stop = -1) {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        const auto wait = std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max());
        std::array<pollfd, 2> entries{{{descriptor, events, 0}, {stop, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(wait));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

Error LinkLost(const std::string& why) {
    return {ErrorKind::kLinkLost, "the link is lost: " + why};
}

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

Deadline DeadlineAfter(milliseconds timeout) {
    const auto now = Clock::now();
    const auto most = std::chrono::floor<milliseconds>(Deadline::max() - now);
    return timeout >= most ? Deadline::max() : now + timeout;
}

Expected<Done> Transport::WriteAll(std::span<const std::uint8_t> bytes, Deadline deadline) {
    const auto sent = Write(bytes, deadline);
    if (!sent) return sent.error();
    if (*sent == bytes.size()) return Done{};
    return Error{ErrorKind::kTimeout, "the unit accepted no bytes in time"};
}

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

namespace {

struct Rate {
    int baud;
    speed_t code;
};

constexpr Rate kRates[] = {
    {300, B300},       {600, B600},       {1200, B1200},     {2400, B2400},     {4800, B4800},
    {9600, B9600},     {19200, B19200},   {38400, B38400},   {57600, B57600},   {115200, B115200},
    {230400, B230400}, {460800, B460800}, {500000, B500000}, {576000, B576000}, {921600, B921600},
};

std::optional<speed_t> SpeedCode(int baud) {
    const auto* const found = std::ranges::find(kRates, baud, &Rate::baud);
    if (found == std::end(kRates)) return std::nullopt;
    return found->code;
}

Error CannotOpen(const std::string& path, const std::string& why) {
    return {ErrorKind::kCannotConnect, "cannot open the serial line " + path + ": " + why};
}

termios RawSettings(termios settings, speed_t speed, bool flowControl) {
    cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CLOCAL;
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS);
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    if (flowControl) settings.c_cflag |= CRTSCTS;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    return settings;
}

}  // namespace

Expected<std::unique_ptr<Transport>> SerialTransport::Open(const std::string& path,
                                                           const SerialOptions& options) {
    const auto speed = SpeedCode(options.baudRate);
    if (!speed) {
        return Error{ErrorKind::kInvalidArgument,
                     std::to_string(options.baudRate) + " is not a standard baud rate"};
    }
    // Without O_NONBLOCK the open itself would wait for a carrier.
    const int line = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (line < 0) return CannotOpen(path, std::strerror(errno));
    if (flock(line, LOCK_EX | LOCK_NB) != 0) {
        close(line);
        return CannotOpen(path, "another program has it open");
    }
    termios former{};
    const bool isTerminal = tcgetattr(line, &former) == 0;
    const int stop = isTerminal ? eventfd(0, EFD_CLOEXEC) : -1;
    if (stop < 0) {
        const int error = errno;
        close(line);
        return CannotOpen(path, isTerminal ? std::strerror(error) : "it is not a terminal device");
    }
    std::unique_ptr<SerialTransport> transport(new SerialTransport(line, stop, former));
    const termios settings = RawSettings(former, *speed, options.flowControl);
    if (tcsetattr(line, TCSANOW, &settings) != 0) return CannotOpen(path, std::strerror(errno));
    tcflush(line, TCIOFLUSH);  // bytes from before this conversation
    return std::unique_ptr<Transport>(std::move(transport));
}

SerialTransport::SerialTransport(int terminal, int stopEvent, const termios& formerSettings)
    : line(terminal), stop(stopEvent), former(formerSettings) {}

SerialTransport::~SerialTransport() {
    SerialTransport::Close();
    close(line);
    close(stop);
}

Expected<std::size_t> SerialTransport::Read(std::span<std::uint8_t> buffer,
                                            std::chrono::milliseconds timeout) {
    if (!PollDescriptor(line, POLLIN, DeadlineAfter(timeout), stop)) return std::size_t{0};
    if (closed) return LinkLost("it was closed by this side");
    const ssize_t count = read(line, buffer.data(), buffer.size());
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0) return LinkLost("the serial line has hung up");
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return LinkLost(std::strerror(errno));
}

Expected<std::size_t> SerialTransport::Write(std::span<const std::uint8_t> bytes,
                                             Deadline deadline) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        if (closed) return LinkLost("it was closed by this side");
        const auto rest = bytes.subspan(sent);
        const ssize_t count = write(line, rest.data(), rest.size());
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
        } else if (count == 0 || errno == EAGAIN) {
            if (!PollDescriptor(line, POLLOUT, deadline, stop)) break;
        } else if (errno != EINTR) {
            return LinkLost(std::strerror(errno));
        }
    }
    return sent;
}

void SerialTransport::Close() {
    if (closed.exchange(true)) return;
    eventfd_write(stop, 1);
    tcsetattr(line, TCSANOW, &former);
}

}  // namespace vexahost
