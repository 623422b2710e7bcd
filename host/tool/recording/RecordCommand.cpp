#include "RecordCommand.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Interrupt.h"
#include "Program.h"
#include "Relay.h"

namespace {

using Clock = std::chrono::steady_clock;

struct RecordOptions {
    UnitAddress unit;
    std::string file;
    std::string listen;  // directory; empty: a temporary one
    std::optional<std::chrono::milliseconds> duration;
    std::vector<std::string> program;
};

// The directory with the socket that is recorded: given, or a temporary one.
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
    auto writer = vexahost::PcapngWriter::Create(options.file);
    if (!writer) return ReportError(writer.Failure());
    const SocketDirectory directory(options.listen);
    Relay relay(options.unit.Factory(), std::move(*writer));
    if (const auto listening = relay.Listen(directory.Path()); !listening) {
        return ReportError(listening.Failure());
    }

    std::optional<Program> program;
    if (!options.program.empty()) {
        auto started = Program::Start(options.program, directory.Path());
        if (!started) {
            std::error_code ignored;
            std::filesystem::remove(options.file, ignored);
            return ReportError(started.Failure());
        }
        program = *started;
    } else {
        std::fprintf(stderr, "vexa-host: recording hosts that connect to --dir %s\n",
                     directory.Path().c_str());
    }
    const auto end = options.duration ? Clock::now() + *options.duration : Clock::time_point::max();
    const auto served = relay.Serve(
        [&] { return IsInterrupted() || Clock::now() >= end || (program && program->Status()); });
    const std::optional<int> status = program ? std::optional(program->Stop()) : std::nullopt;
    if (!served) return ReportError(served.Failure());
    std::fprintf(stderr, "vexa-host: %llu frames in %s\n",
                 static_cast<unsigned long long>(relay.FrameCount()), options.file.c_str());
    return status ? static_cast<ExitCode>(*status) : kExitDone;
}

}  // namespace

void AddRecordCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "record", "Record what a host program and the unit say to each other, as pcapng");
    const auto options = std::make_shared<RecordOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("FILE", options->file, "the recording; replaced if it is there")
        ->required();
    command
        ->add_option("--listen", options->listen,
                     "directory for the socket that the host program connects to instead of the "
                     "unit's (a temporary one)")
        ->option_text("DIR");
    AddDurationOption(*command, "--for", options->duration, "how long (until Ctrl-C)");
    command
        ->add_option("PROGRAM", options->program,
                     "host program to run and record, with its arguments; it finds the socket's "
                     "directory in $VEXA_UNIT_DIR")
        ->option_text("-- PROGRAM ARGS...");
    command->footer(
        "Ends with the program, and with its exit code; without a program, after --for or with\n"
        "Ctrl-C. Every frame is in the file as soon as it has passed.\n"
        "Examples: vexa-host record session.pcapng -- vexa-host stream Microphone --for 5s\n"
        "          vexa-host record session.pcapng --listen here & my-host-program here/host.sock");
    OnChosen(*command, exitCode, [options] { return RunRecord(*options); });
}
