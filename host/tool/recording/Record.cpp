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
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "testkit/ChildProcess.h"
#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Verbs.h"
#include "vexahost/Client.h"
#include "vexahost/Recording.h"
#include "vexahost/SocketTransport.h"

namespace vexahost::tool {

namespace {

using vexa::Mutex;
using vexa::MutexLock;

// Stands between a host program and its unit, and records what passes. Serve and Listen: one
// thread.
class Relay {
  public:
    // `connect` makes a connection to the unit, one for each host.
    Relay(TransportFactory connect, PcapngWriter writer);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Makes a host socket in `directory`. Replaces a socket on which nobody listens any more.
    Expected<Done> Listen(const std::string& directory);

    // Accepts hosts, one at a time, and connects each to the unit, until `isOver` returns true and
    // the host has nothing more to send. When the unit cannot be reached, reports that on standard
    // error and disconnects the host. kInvalidArgument when the recording cannot be written.
    Expected<Done> Serve(const std::function<bool()>& isOver);

    [[nodiscard]] std::uint64_t FrameCount();

  private:
    void ServeHost(int host, const std::function<bool()>& isOver);
    // From the unit to the host, until either link has ended. Forwarder thread.
    void Forward(Transport& unit, int host);
    // From the host to the unit, until either link has ended or `isOver`.
    void ForwardRequests(Transport& unit, int host, const std::function<bool()>& isOver);
    void Record(Direction direction, std::span<const std::uint8_t> bytes, const char* event = "");
    // Why the recording cannot be written any more.
    [[nodiscard]] std::optional<Error> Failure();

    const TransportFactory connect;
    std::string socketPath;
    int listener = -1;

    Mutex mutex;
    PcapngWriter writer VEXA_GUARDED_BY(mutex);
    std::uint64_t frameCount VEXA_GUARDED_BY(mutex) = 0;
    std::optional<Error> failure VEXA_GUARDED_BY(mutex);  // of the recording
};

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

bool SomebodyListens(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool listens =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return listens;
}

Relay::Relay(TransportFactory connect_, PcapngWriter writer_)
    : connect(std::move(connect_)), writer(std::move(writer_)) {}

Relay::~Relay() {
    if (listener < 0) return;
    close(listener);
    unlink(socketPath.c_str());
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
    for (;;) {
        if (auto error = Failure()) return *error;
        if (CanRead(listener)) {
            const int host = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (host < 0) continue;
            ServeHost(host, isOver);
            close(host);
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
    Record(Direction::kToUnit, {}, kCableIn);
    std::thread forwarder([this, &unit, host] { Forward(**unit, host); });
    ForwardRequests(**unit, host, isOver);
    (*unit)->Close();
    shutdown(host, SHUT_RDWR);
    forwarder.join();
    Record(Direction::kToUnit, {}, kCableOut);
}

void Relay::Forward(Transport& unit, int host) {
    FrameCutter frames(unit.UnitFraming(), [this](std::span<const std::uint8_t> frame) {
        Record(Direction::kFromUnit, frame);
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
    std::array<std::uint8_t, kRelayReadSize> buffer;
    while (!Failure()) {
        if (!CanRead(host)) {
            if (isOver()) return;
            // A unit has one host at a time: others are sent away.
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
        if (!unit.WriteAll(piece, DeadlineAfter(kRelayWriteTimeout))) return;
    }
}

void Relay::Record(Direction direction, std::span<const std::uint8_t> bytes, const char* event) {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    const MutexLock lock(mutex);
    if (failure) return;
    const auto added = writer.Add({time, direction, bytes, event});
    if (!added) {
        failure = added.error();
    } else if (!bytes.empty()) {
        ++frameCount;
    }
}

std::optional<Error> Relay::Failure() {
    const MutexLock lock(mutex);
    return failure;
}

std::uint64_t Relay::FrameCount() {
    const MutexLock lock(mutex);
    return frameCount;
}

using Clock = std::chrono::steady_clock;

struct RecordOptions {
    UnitAddress unit;
    std::string file;
    std::string listen;  // directory; empty: a temporary one
    std::optional<std::chrono::milliseconds> duration;
    std::vector<std::string> program;
};

// The directory of the recorder's socket: the given one, or a temporary one. Removed again when
// made here.
class SocketDirectory {
  public:
    explicit SocketDirectory(std::string given) : path(std::move(given)) {
        std::error_code error;
        if (!path.empty()) {
            made = std::filesystem::create_directory(path, error);
            return;
        }
        std::string pattern = std::filesystem::temp_directory_path(error) / "vexa-host-XXXXXX";
        if (!error && mkdtemp(pattern.data()) != nullptr) path = pattern;
        made = true;
    }
    ~SocketDirectory() {
        std::error_code ignored;
        if (made) std::filesystem::remove(path, ignored);
    }
    SocketDirectory(const SocketDirectory&) = delete;
    SocketDirectory& operator=(const SocketDirectory&) = delete;

    [[nodiscard]] const std::string& Path() const { return path; }

  private:
    std::string path;
    bool made = false;
};

ExitCode RunRecord(const RecordOptions& options) {
    CatchInterrupts();
    auto writer = PcapngWriter::Create(options.file);
    if (!writer) return ReportError(writer.error());
    const SocketDirectory directory(options.listen);
    Relay relay(options.unit.Factory(), std::move(*writer));
    if (const auto listening = relay.Listen(directory.Path()); !listening) {
        return ReportError(listening.error());
    }

    std::optional<vexa::testkit::ChildProcess> program;
    if (!options.program.empty()) {
        vexa::testkit::ProcessCall call;
        call.command = options.program;
        call.environment = {{"VEXA_UNIT_DIR", directory.Path()}};
        call.output = vexa::testkit::ProcessCall::Output::kShared;
        call.deathSignal = 0;  // the program may go on without a recording
        try {
            program.emplace(call);
        } catch (const std::system_error& error) {
            std::error_code ignored;
            std::filesystem::remove(options.file, ignored);
            return ReportError({ErrorKind::kInvalidArgument, error.what()});
        }
    } else {
        std::fprintf(stderr, "vexa-host: recording hosts that connect to --dir %s\n",
                     directory.Path().c_str());
    }
    constexpr std::chrono::seconds kStopPatience{5};
    const auto end = options.duration ? Clock::now() + *options.duration : Clock::time_point::max();
    const auto served = relay.Serve(
        [&] { return IsInterrupted() || Clock::now() >= end || (program && program->Status()); });
    const std::optional<int> status =
        program ? std::optional(program->Stop(kStopPatience)) : std::nullopt;
    if (!served) return ReportError(served.error());
    std::fprintf(stderr, "vexa-host: %llu frames in %s\n",
                 static_cast<unsigned long long>(relay.FrameCount()), options.file.c_str());
    return status ? static_cast<ExitCode>(*status) : kExitDone;
}

}  // namespace

Verb RecordVerb() {
    const auto options = std::make_shared<RecordOptions>();
    return {
        .name = "record",
        .summary = "Record what a host program and the unit say to each other, as pcapng",
        .options = WithUnitOptions(
            options->unit,
            {{"FILE", "", "the recording; replaced if it exists", &options->file, true},
             {"--listen", "DIR",
              "directory for the socket that the host program connects to instead of the unit's (a "
              "temporary one)",
              &options->listen},
             {"--for", "TIME", "how long (until Ctrl-C)", &options->duration},
             {"PROGRAM", "-- PROGRAM ARGS...",
              "host program to run and record, with its arguments; it finds the socket's directory "
              "in $VEXA_UNIT_DIR",
              &options->program}}),
        .notes =
            "Ends with the program, and with its exit code; without a program, after --for or "
            "with\n"
            "Ctrl-C. Every frame is in the file as soon as it has passed.\n"
            "Examples: vexa-host record session.pcapng -- vexa-host stream Microphone --for 5s\n"
            "          vexa-host record session.pcapng --listen here & my-host-program "
            "here/host.sock",
        .run = [options] { return RunRecord(*options); }};
}

}  // namespace vexahost::tool
