#include "StreamCommand.h"

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "../Interrupt.h"
#include "LiveView.h"
#include "StreamSource.h"

namespace {

using vexahost::Done;
using vexahost::Error;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

struct StreamOptions {
    UnitAddress unit;
    StreamedDevices devices;
    std::vector<std::string> formats;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool csv = false;
    bool json = false;
    bool lines = false;  // also on a terminal
};

Expected<std::vector<SampleFormat>> ParseFormats(const StreamOptions& options) {
    std::vector<SampleFormat> formats;
    for (const std::string& text : options.formats) {
        auto format = ParseSampleFormat(text);
        if (!format) return format.Failure();
        const std::string& device = format->device;
        if (!device.empty() && !options.devices.Contains(device)) {
            std::string message = "--format " + text + ": ";
            message += device;
            message += " is not among the devices to stream";
            return Error{ErrorKind::kInvalidArgument, std::move(message)};
        }
        formats.push_back(std::move(*format));
    }
    return formats;
}

Expected<Done> CheckDevices(const StreamedDevices& devices) {
    if (devices.names.empty() && !devices.daq) {
        return Error{ErrorKind::kInvalidArgument, "NAME is required: a sensor's, or --daq"};
    }
    for (const std::string& name : devices.arm) {
        if (std::ranges::find(devices.names, name) == devices.names.end()) {
            return Error{ErrorKind::kInvalidArgument,
                         "--arm " + name + ": not among the devices to stream"};
        }
    }
    return Done{};
}

std::unique_ptr<StreamSink> MakeSink(const StreamOptions& options, const StreamSource& source) {
    if (options.csv) return MakeCsvSink();
    if (options.json) return MakeJsonSink();
    if (options.lines || isatty(STDOUT_FILENO) == 0) return MakeTextSink();
    return std::make_unique<LiveView>(
        options.unit.Text(), source.Names(),
        [&source](std::size_t device) { return source.StatisticsOf(device); });
}

// The reader of a pipe that has seen enough is no failure.
Expected<Done> OutputEnd() {
    if (errno == EPIPE) return Done{};
    return Error{ErrorKind::kInvalidArgument,
                 std::string("cannot write to standard output: ") + std::strerror(errno)};
}

Expected<Done> Pump(StreamSource& source, StreamSink& sink, std::span<const SampleFormat> formats,
                    Clock::time_point end) {
    const auto start = Clock::now();
    const auto take = [&](std::size_t device, const vexahost::Block& block) {
        const std::string& name = source.Names()[device];
        const std::chrono::duration<double> since = block.receivedAt - start;
        const auto reading =
            block.checksumRight ? ReadBlock(formats, name, block.bytes) : std::optional<Reading>{};
        sink.Take({device, name, std::max(since.count(), 0.0), block, reading});
    };
    while (!IsInterrupted() && Clock::now() < end && !sink.WantsEnd()) {
        if (auto taken = source.TakeAll(take); !taken) return taken;
        errno = 0;
        sink.Update();
        if (std::ferror(stdout) != 0) return OutputEnd();
    }
    return Done{};
}

ExitCode RunStream(const StreamOptions& options) {
    if (const auto right = CheckDevices(options.devices); !right) {
        return ReportError(right.Failure());
    }
    const auto formats = ParseFormats(options);
    if (!formats) return ReportError(formats.Failure());
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.Failure());
    StreamSource source(**client, options.devices);
    if (const auto opened = source.Open(); !opened) return ReportError(opened.Failure());

    CatchInterrupts();
    signal(SIGPIPE, SIG_IGN);
    // Counted from here: until the unit has seen the cable, half a second may have gone.
    const auto start = Clock::now();
    const auto end = options.duration ? start + *options.duration : Clock::time_point::max();
    const auto pumped = Pump(source, *MakeSink(options, source), *formats, end);
    source.PrintTotals(Clock::now() - start);
    if (!pumped) return ReportError(pumped.Failure());
    LeaveInOrder(**client);
    return kExitDone;
}

}  // namespace

void AddStreamCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "stream", "Show what sensors and the DAQ send: live figures and graphs, lines, CSV, JSON");
    const auto options = std::make_shared<StreamOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("NAME", options->devices.names, "names of the sensors")
        ->expected(0, 100)
        ->option_text(" ");
    command->add_flag("--daq", options->devices.daq,
                      "take the DAQ over and stream its packets too");
    command->add_option("--arm", options->devices.arm, "a HID sensor to be sent the init request")
        ->option_text("NAME")
        ->allow_extra_args(false);
    AddDurationOption(*command, "--for", options->duration,
                      "how long, e.g. 3s, 500ms, 2m (until Ctrl-C)");
    auto* csv = command->add_flag("--csv", options->csv, "a row for each sample");
    auto* json =
        command->add_flag("--json", options->json, "a JSON object for each block")->excludes(csv);
    command->add_flag("--lines", options->lines, "a line for each block, on a terminal as well")
        ->excludes(csv)
        ->excludes(json);
    command
        ->add_option("--format", options->formats,
                     "where samples stand in a block, one for each channel")
        ->option_text("FORMAT")
        ->allow_extra_args(false);
    command->footer(
        "FORMAT is [NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]: TYPE is u8, i8, or one of u16 i16 u32 i32 "
        "f32\n"
        "f64 with le or be behind; OFFSET counts bytes from 0; COUNT samples stand there, or as "
        "many\n"
        "as fit; NAME: makes it one device's own. Without a format those of virtual units are "
        "known.\n"
        "CSV columns: time_s,device,sequence,device_time_s,channel,index,value. JSON keys: "
        "time_s,\n"
        "device, sequence, device_time_s, channels {NAME: [samples]} or bytes. time_s counts from "
        "the\n"
        "start of the stream. The totals go to standard error.\n"
        "Examples: vexa-host stream Accelerometer Microphone\n"
        "          vexa-host stream Thermometer --arm Thermometer --for 10s --csv > t.csv\n"
        "          vexa-host stream Probe --format x=f32le@0 --format y=f32le@4");
    OnChosen(*command, exitCode, [options] { return RunStream(*options); });
}
