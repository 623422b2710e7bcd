#include "Relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "capture/FrameCutter.h"
#include "vexahost/SocketTransport.h"

using vexahost::Direction;
using vexahost::Done;
using vexahost::Error;
using vexahost::ErrorKind;
using vexahost::Expected;

namespace {

constexpr int kLookUpMs = 50;  // how often a wait looks whether all is over
constexpr std::chrono::milliseconds kReadTimeout{kLookUpMs};
constexpr std::chrono::milliseconds kWriteTimeout{5000};
constexpr std::size_t kReadSize = 16384;

// True when `descriptor` can be read, or has ended, within the look-up time.
bool CanRead(int descriptor) {
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, kLookUpMs) > 0;
}

bool SendAll(int host, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(host, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

bool SomebodyListens(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool listens =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return listens;
}

}  // namespace

Relay::Relay(vexahost::TransportFactory connect_, vexahost::PcapngWriter writer_)
    : connect(std::move(connect_)), writer(std::move(writer_)) {}

Relay::~Relay() {
    if (listener < 0) return;
    close(listener);
    unlink(socketPath.c_str());
}

Expected<Done> Relay::Listen(const std::string& directory) {
    const std::string path = directory + "/" + vexahost::SocketTransport::kSocketName;
    const auto failed = [&path](const std::string& why) {
        return Error{ErrorKind::kInvalidArgument, "cannot listen on " + path + ": " + why};
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return failed("the path is too long for a socket");
    std::ranges::copy(path, address.sun_path);
    if (SomebodyListens(address)) return failed("something listens there already");
    unlink(path.c_str());
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (made < 0 || bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(made, 1) != 0) {
        const int error = errno;
        if (made >= 0) close(made);
        return failed(std::strerror(error));
    }
    listener = made;
    socketPath = path;
    return Done{};
}

Expected<Done> Relay::Serve(const std::function<bool()>& isOver) {
    while (!HasFailed()) {
        if (CanRead(listener)) {
            const int host = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (host < 0) continue;
            ServeHost(host, isOver);
            close(host);
        } else if (isOver()) {
            return Done{};
        }
    }
    return *failure;
}

void Relay::ServeHost(int host, const std::function<bool()>& isOver) {
    const auto unit = connect();
    if (!unit) {
        std::fprintf(stderr, "vexa-host: %s\n", unit.Failure().message.c_str());
        return;
    }
    Record(Direction::kToUnit, {}, vexahost::kCableIn);
    std::thread forwarder([this, &unit, host] { Forward(**unit, host); });
    TakeFromHost(**unit, host, isOver);
    (*unit)->Close();
    shutdown(host, SHUT_RDWR);
    forwarder.join();
    Record(Direction::kToUnit, {}, vexahost::kCableOut);
}

void Relay::Forward(vexahost::Transport& unit, int host) {
    vexahost::FrameCutter frames(unit.UnitFraming(), [this](std::span<const std::uint8_t> frame) {
        Record(Direction::kFromUnit, frame);
    });
    // A host of this socket expects frame headers, also of a unit whose link carries none.
    vexahost::FrameCutter wrapper(
        vexahost::Framing::kNone,
        [&](std::span<const std::uint8_t> frame) { SendAll(host, frame); });
    const bool wrap = unit.UnitFraming() == vexahost::Framing::kNone;
    std::array<std::uint8_t, kReadSize> buffer;
    while (const auto count = unit.Read(buffer, kReadTimeout)) {
        const auto piece = std::span<const std::uint8_t>(buffer).first(*count);
        frames.Take(piece);
        if (wrap) {
            wrapper.Take(piece);
        } else if (!SendAll(host, piece)) {
            break;
        }
    }
    frames.Finish();
    shutdown(host, SHUT_RDWR);  // ends the other direction
}

void Relay::TakeFromHost(vexahost::Transport& unit, int host, const std::function<bool()>& isOver) {
    std::array<std::uint8_t, kReadSize> buffer;
    while (!HasFailed()) {
        if (!CanRead(host)) {
            if (isOver()) return;
            // One host at a time, as a unit has it.
            pollfd newcomer{listener, POLLIN, 0};
            if (poll(&newcomer, 1, 0) > 0) close(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            continue;
        }
        const ssize_t count = recv(host, buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        const auto piece =
            std::span<const std::uint8_t>(buffer).first(static_cast<std::size_t>(count));
        Record(Direction::kToUnit, piece);
        if (!unit.WriteAll(piece, kWriteTimeout)) return;
    }
}

void Relay::Record(Direction direction, std::span<const std::uint8_t> bytes, const char* event) {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    const std::lock_guard lock(mutex);
    if (failure) return;
    const auto added = writer.Add({time, direction, bytes, event});
    if (!added) {
        failure = added.Failure();
    } else if (!bytes.empty()) {
        ++frameCount;
    }
}

bool Relay::HasFailed() {
    const std::lock_guard lock(mutex);
    return failure.has_value();
}
