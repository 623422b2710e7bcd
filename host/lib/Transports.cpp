#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>

#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

namespace vexahost {

namespace {

// Waits until one of `events`, or the end of the connection, can be seen at `descriptor`, or until
// `stop`, if it is not negative, becomes readable. False when `deadline` came first; signals do not
// move it.
bool PollDescriptor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                    int stop = -1) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        const auto wait = std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max());
        std::array<pollfd, 2> entries{{{descriptor, events, 0}, {stop, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(wait));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

using Clock = std::chrono::steady_clock;

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
                return Error{ErrorKind::kTimeout, "the unit accepted no bytes in time"};
            }
        } else if (errno != EINTR) {
            return LinkLost(std::strerror(errno));
        }
    }
    return Done{};
}

void SocketTransport::Close() { shutdown(socketHandle, SHUT_RDWR); }

namespace {

using Clock = std::chrono::steady_clock;

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
    if (!PollDescriptor(line, POLLIN, Clock::now() + timeout, stop)) return std::size_t{0};
    if (closed) return LinkLost("it was closed by this side");
    const ssize_t count = read(line, buffer.data(), buffer.size());
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0) return LinkLost("the serial line has hung up");
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return LinkLost(std::strerror(errno));
}

Expected<Done> SerialTransport::WriteAll(std::span<const std::uint8_t> bytes,
                                         std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!bytes.empty()) {
        if (closed) return LinkLost("it was closed by this side");
        const ssize_t count = write(line, bytes.data(), bytes.size());
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (count == 0 || errno == EAGAIN) {
            if (!PollDescriptor(line, POLLOUT, deadline, stop)) {
                return Error{ErrorKind::kTimeout, "the unit accepted no bytes in time"};
            }
        } else if (errno != EINTR) {
            return LinkLost(std::strerror(errno));
        }
    }
    return Done{};
}

void SerialTransport::Close() {
    if (closed.exchange(true)) return;
    eventfd_write(stop, 1);
    tcsetattr(line, TCSANOW, &former);
}

}  // namespace vexahost
