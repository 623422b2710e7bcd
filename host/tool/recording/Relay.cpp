#include "tool/recording/Relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "vexahost/SocketTransport.h"
#include "vexahost/protocol/FrameHeader.h"

namespace vexahost::tool {

namespace {

using vexa::testkit::Descriptor;
using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 50;  // how often a wait checks whether all is over
constexpr std::chrono::milliseconds kRelayReadTimeout{kPollMs};
constexpr std::chrono::milliseconds kRelayConnectTimeout{10000};
constexpr std::chrono::milliseconds kRelayWriteTimeout{5000};
constexpr std::size_t kRelayReadSize = 16384;

// Waits a short time until `descriptor` can be read or has ended.
bool CanRead(int descriptor) {
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, kPollMs) > 0;
}

bool SendAll(int host, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(host, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

// Also when it is too busy to accept at once.
bool SomebodyListens(const sockaddr_un& address) {
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    return connect(probe.Get(), generic, sizeof address) == 0 || errno == EAGAIN;
}

}  // namespace

Relay::Relay(TransportFactory connect_) : connect(std::move(connect_)) {}

Relay::~Relay() {
    if (listener) unlink(socketPath.c_str());
}

Expected<Done> Relay::Listen(const std::string& directory) {
    const std::string path = directory + "/" + SocketTransport::kSocketName;
    const auto failed = [&path](const std::string& why) {
        return Error{ErrorKind::kInvalidArgument, "cannot listen on " + path + ": " + why};
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return failed("the path is too long for a socket");
    std::ranges::copy(path, address.sun_path);
    if (SomebodyListens(address)) return failed("something listens there already");
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) return failed("a file of this name is not a socket");
        unlink(path.c_str());
    }
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(made.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(made.Get(), 1) != 0) {
        return failed(std::strerror(errno));
    }
    listener = std::move(made);
    socketPath = path;
    return Done{};
}

Expected<Done> Relay::Serve(SessionRecorder& recording, const std::function<bool()>& isOver) {
    recorder = &recording;
    for (;;) {
        if (auto error = recorder->Failure()) return *error;
        if (!isOver() && CanRead(listener.Get())) {
            const Descriptor host(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (host) ServeHost(host.Get(), isOver);
        } else if (isOver()) {
            return Done{};
        }
    }
}

void Relay::ServeHost(int host, const std::function<bool()>& isOver) {
    const auto unit = connect({DeadlineAfter(kRelayConnectTimeout), isOver});
    if (!unit) {
        std::fprintf(stderr, "vexa-host: %s\n", unit.error().message.c_str());
        return;
    }
    recorder->Add(Direction::kToUnit, {}, kCableIn);
    std::thread forwarder([this, &unit, host] { Forward(**unit, host); });
    ForwardRequests(**unit, host, isOver);
    (*unit)->Close();
    shutdown(host, SHUT_RDWR);
    forwarder.join();
    recorder->Add(Direction::kToUnit, {}, kCableOut);
}

void Relay::Forward(Transport& unit, int host) {
    FrameCutter frames(unit.UnitFraming(), [this](std::span<const std::uint8_t> frame) {
        recorder->Add(Direction::kFromUnit, frame);
    });
    // Hosts of this socket expect frame headers, also when the unit's own link has none.
    FrameCutter wrapper(Framing::kNone,
                        [&](std::span<const std::uint8_t> frame) { SendAll(host, frame); });
    const bool wrap = unit.UnitFraming() == Framing::kNone;
    std::array<std::uint8_t, kRelayReadSize> buffer;
    while (const auto count = unit.Read(buffer, kRelayReadTimeout)) {
        const auto piece = std::span<const std::uint8_t>(buffer).first(*count);
        frames.Add(piece);
        if (wrap) {
            wrapper.Add(piece);
        } else if (!SendAll(host, piece)) {
            break;
        }
    }
    frames.Finish();
    shutdown(host, SHUT_RDWR);  // ends the other direction
}

void Relay::ForwardRequests(Transport& unit, int host, const std::function<bool()>& isOver) {
    constexpr std::chrono::seconds kDrain{1};
    std::array<std::uint8_t, kRelayReadSize> buffer;
    std::optional<Clock::time_point> drained;
    while (!recorder->Failure()) {
        if (!drained && isOver()) drained = Clock::now() + kDrain;
        const bool canRead = CanRead(host);
        if (drained && (!canRead || Clock::now() >= *drained)) return;
        TurnNewcomersAway();
        if (!canRead) continue;
        const ssize_t count = recv(host, buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        const auto piece =
            std::span<const std::uint8_t>(buffer).first(static_cast<std::size_t>(count));
        recorder->Add(Direction::kToUnit, piece);
        if (!unit.WriteAll(piece, DeadlineAfter(kRelayWriteTimeout))) return;
    }
}

// A unit has one host at a time.
void Relay::TurnNewcomersAway() {
    pollfd newcomer{listener.Get(), POLLIN, 0};
    if (poll(&newcomer, 1, 0) < 1) return;
    Descriptor host(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!host) return;
    SendAll(host.Get(), vexa::kBusyHeader);
    shutdown(host.Get(), SHUT_WR);
    refused = std::move(host);
}

}  // namespace vexahost::tool
