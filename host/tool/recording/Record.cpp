#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
#include "testkit/Descriptor.h"
#include "testkit/StandardOutput.h"
#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Verbs.h"
#include "vexahost/Client.h"
#include "vexahost/Recording.h"
#include "vexahost/SocketTransport.h"
#include "vexahost/protocol/FrameHeader.h"

namespace vexahost::tool {

namespace {

using vexa::Mutex;
using vexa::MutexLock;

// Stands between a host program and its unit, and records what passes. Serve and Listen: one
// thread.
class Relay {
  public:
    // `connect` makes a connection to the unit, one for each host.
    explicit Relay(TransportFactory connect);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Makes a host socket in `directory`. Replaces a socket on which nobody listens any more; any
    // other file of its name is left alone.
    Expected<Done> Listen(const std::string& directory);

    // Accepts hosts, one at a time, and connects each to the unit, until `isOver` returns true;
    // then passes on for up to a second what the host has still to send. When the unit cannot be
    // reached, reports that on standard error and disconnects the host. kInvalidArgument when the
    // recording cannot be written.
    Expected<Done> Serve(PcapngWriter recording, const std::function<bool()>& isOver);

    [[nodiscard]] std::uint64_t FrameCount();

  private:
    void ServeHost(int host, const std::function<bool()>& isOver);
    // From the unit to the host, until either link has ended. Forwarder thread.
    void Forward(Transport& unit, int host);
    // From the host to the unit, until either link has ended or `isOver`.
    void ForwardRequests(Transport& unit, int host, const std::function<bool()>& isOver);
    void TurnNewcomersAway();
    void Record(Direction direction, std::span<const std::uint8_t> bytes, const char* event = "");
    // Why the recording cannot be written any more.
    [[nodiscard]] std::optional<Error> Failure();

    const TransportFactory connect;
    std::string socketPath;
    int listener = -1;
    // The host that was turned away last. Closed at once, it could lose the answer with what it had
    // sent.
    vexa::testkit::Descriptor refused;

    Mutex mutex;
    std::optional<PcapngWriter> writer VEXA_GUARDED_BY(mutex);
    std::uint64_t frameCount VEXA_GUARDED_BY(mutex) = 0;
    std::optional<Error> failure VEXA_GUARDED_BY(mutex);  // of the recording
};

using Clock = std::chrono::steady_clock;

// What a second Ctrl-C has to remove; read by a signal handler. A path that does not fit is too
// long for a socket as well.
std::array<char, sizeof sockaddr_un::sun_path> leftSocket{};
std::array<char, sizeof sockaddr_un::sun_path> leftDirectory{};

void RemoveLeftovers() {
    unlink(leftSocket.data());
    rmdir(leftDirectory.data());
}

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

Relay::Relay(TransportFactory connect_) : connect(std::move(connect_)) {}

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
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) return failed("a file of this name is no socket");
        unlink(path.c_str());
    }
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (made < 0 || bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(made, 1) != 0) {
        const int error = errno;
        if (made >= 0) close(made);
        return failed(std::strerror(error));
    }
    listener = made;
    socketPath = path;
    path.copy(leftSocket.data(), leftSocket.size() - 1);
    return Done{};
}

Expected<Done> Relay::Serve(PcapngWriter recording, const std::function<bool()>& isOver) {
    {
        const MutexLock lock(mutex);
        writer.emplace(std::move(recording));
    }
    for (;;) {
        if (auto error = Failure()) return *error;
        if (!isOver() && CanRead(listener)) {
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
    constexpr std::chrono::seconds kDrain{1};
    std::array<std::uint8_t, kRelayReadSize> buffer;
    std::optional<Clock::time_point> drained;
    while (!Failure()) {
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
        Record(Direction::kToUnit, piece);
        if (!unit.WriteAll(piece, DeadlineAfter(kRelayWriteTimeout))) return;
    }
}

// A unit has one host at a time.
void Relay::TurnNewcomersAway() {
    pollfd newcomer{listener, POLLIN, 0};
    if (poll(&newcomer, 1, 0) < 1) return;
    const int host = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (host < 0) return;
    SendAll(host, vexa::kBusyHeader);
    shutdown(host, SHUT_WR);
    refused = vexa::testkit::Descriptor(host);
}

void Relay::Record(Direction direction, std::span<const std::uint8_t> bytes, const char* event) {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    const MutexLock lock(mutex);
    if (failure) return;
    const auto added = writer->Add({time, direction, bytes, event});
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

struct RecordOptions {
    UnitAddress unit;
    std::string file;
    std::string listen;  // directory; empty: a temporary one
    std::optional<std::chrono::milliseconds> duration;
    std::vector<std::string> program;
};

constexpr const char* kStandardOutput = "-";

// The directory of the recorder's socket: the given one, or a temporary one. Removed again when
// made here.
class SocketDirectory {
  public:
    explicit SocketDirectory(std::string given) : path(std::move(given)) {
        std::error_code error;
        if (path.empty()) {
            path = std::filesystem::temp_directory_path(error) / "vexa-host-XXXXXX";
            made = mkdtemp(path.data()) != nullptr;
        } else {
            made = std::filesystem::create_directory(path, error);
        }
        if (made) path.copy(leftDirectory.data(), leftDirectory.size() - 1);
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

// The host program that runs beside the recording, if there is one, and when all is over.
class HostProgram {
  public:
    HostProgram(const RecordOptions& options_) : options(options_) {}

    // kInvalidArgument when it cannot be started.
    Expected<Done> Start(const std::string& directory) {
        if (options.duration) end = Clock::now() + *options.duration;
        if (options.program.empty()) return Done{};
        using vexa::testkit::ProcessCall;
        ProcessCall call;
        call.command = options.program;
        call.environment = {{"VEXA_UNIT_DIR", directory}};
        const bool isOutputFree = options.file != kStandardOutput;
        call.output = isOutputFree ? ProcessCall::Output::kShared : ProcessCall::Output::kToError;
        call.deathSignal = 0;  // the program may go on without a recording
        try {
            program.emplace(call);
        } catch (const std::system_error& error) {
            return Error{ErrorKind::kInvalidArgument, error.what()};
        }
        return Done{};
    }

    // Without a program: at the end of the time, or when interrupted. With one: when it has ended.
    // It is asked to end before that, and may take leave of the unit while its link is up.
    bool IsOver() {
        const auto now = Clock::now();
        if (!program) return IsInterrupted() || now >= end;
        if (program->Status()) return true;
        // Ctrl-C reaches the program as well, and a second signal would cut its leave-taking short.
        if (!askAt && IsInterrupted()) askAt = now + kOwnEnd;
        if (!askAt && now >= end) askAt = now;
        if (askAt && now >= *askAt && !isAsked) {
            isAsked = true;
            program->Signal(SIGTERM);
        }
        return askAt && now >= *askAt + kPatience;
    }

    // Its exit status; nothing without a program. One that still runs is killed.
    std::optional<int> Finish() {
        if (!program) return std::nullopt;
        return program->Stop(vexa::testkit::Milliseconds{0});
    }

  private:
    static constexpr std::chrono::seconds kOwnEnd{2};
    static constexpr std::chrono::seconds kPatience{5};

    const RecordOptions& options;
    std::optional<vexa::testkit::ChildProcess> program;
    Clock::time_point end = Clock::time_point::max();
    std::optional<Clock::time_point> askAt;
    bool isAsked = false;
};

// Everything is tried before the recording is created. What a former one holds stays until the unit
// is reached.
ExitCode RunRecord(const RecordOptions& options) {
    CatchInterrupts();
    const AtSecondInterrupt removing(RemoveLeftovers);
    const SocketDirectory directory(options.listen);
    Relay relay(options.unit.Factory());
    if (const auto listening = relay.Listen(directory.Path()); !listening) {
        return ReportError(listening.error());
    }
    HostProgram program(options);
    if (const auto started = program.Start(directory.Path()); !started) {
        return ReportError(started.error());
    }
    auto writer = PcapngWriter::Create(options.file);
    if (!writer) return ReportError(writer.error());
    if (options.program.empty()) {
        std::fprintf(stderr, "vexa-host: recording hosts that connect to --dir %s\n",
                     directory.Path().c_str());
    }
    const auto served = relay.Serve(std::move(*writer), [&] { return program.IsOver(); });
    const auto status = program.Finish();
    const bool isReaderGone = options.file == kStandardOutput && vexa::testkit::HasReaderLeft();
    if (!served && !isReaderGone) return ReportError(served.error());
    if (relay.FrameCount() == 0) {
        std::fprintf(stderr, "vexa-host: no frames were recorded\n");
    } else {
        std::fprintf(stderr, "vexa-host: %llu frames in %s\n",
                     static_cast<unsigned long long>(relay.FrameCount()),
                     options.file == kStandardOutput ? "standard output" : options.file.c_str());
    }
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
            {{"FILE", "", "the recording; replaced if it exists; - for standard output",
              &options->file, true},
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
            "Ctrl-C, both of which ask a program to end first. Every frame is in the file as soon "
            "as "
            "it\n"
            "has passed.\n"
            "Examples: vexa-host record - -- vexa-host stream Microphone | tshark -i - -X "
            "lua_script:vexa.lua\n"
            "          vexa-host record session.pcapng -- vexa-host stream Microphone --for 5s\n"
            "          vexa-host record session.pcapng --listen here & my-host-program "
            "here/host.sock",
        .run = [options] { return RunRecord(*options); }};
}

}  // namespace vexahost::tool
