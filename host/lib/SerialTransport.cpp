#include "vexahost/SerialTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>

#include "lib/Polling.h"

namespace vexahost {

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
