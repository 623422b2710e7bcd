#include <signal.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "testkit/ChildProcess.h"
#include "testkit/StandardOutput.h"
#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Verbs.h"
#include "tool/recording/Relay.h"
#include "vexahost/SessionRecorder.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

// What a second Ctrl-C has to remove; read by a signal handler. A path that does not fit is too
// long for a socket as well.
std::array<char, sizeof sockaddr_un::sun_path> leftSocket{};
std::array<char, sizeof sockaddr_un::sun_path> leftDirectory{};

void RemoveLeftovers() {
    unlink(leftSocket.data());
    rmdir(leftDirectory.data());
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
    relay.SocketPath().copy(leftSocket.data(), leftSocket.size() - 1);
    HostProgram program(options);
    if (const auto started = program.Start(directory.Path()); !started) {
        return ReportError(started.error());
    }
    const auto recorder = SessionRecorder::Create(options.file);
    if (!recorder) return ReportError(recorder.error());
    if (options.program.empty()) {
        std::fprintf(stderr, "vexa-host: recording hosts that connect to --dir %s\n",
                     directory.Path().c_str());
    }
    const auto served = relay.Serve(**recorder, [&] { return program.IsOver(); });
    const auto status = program.Finish();
    const bool isReaderGone = options.file == kStandardOutput && vexa::testkit::HasReaderLeft();
    if (!served && !isReaderGone) return ReportError(served.error());
    if ((*recorder)->Frames() == 0) {
        std::fprintf(stderr, "vexa-host: no frames were recorded\n");
    } else {
        std::fprintf(stderr, "vexa-host: %llu frames in %s\n",
                     static_cast<unsigned long long>((*recorder)->Frames()),
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
