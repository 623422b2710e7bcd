#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tool/Connection.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "tool/Output.h"
#include "tool/Verbs.h"
#include "tool/recording/RecordingSource.h"
#include "tool/stream/Formats.h"
#include "tool/stream/LiveView.h"
#include "tool/stream/StreamOutput.h"
#include "tool/stream/StreamSource.h"
#include "vexahost/SessionRecorder.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

struct StreamOptions {
    UnitAddress unit;
    StreamedDevices devices;
    FormatOptions formats;
    OutputOptions output;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool lines = false;                    // also on a terminal
    std::string teleplot;
    bool reconnects = false;
    std::string recording;  // that is made
    std::string from;       // a recording that is shown
    std::string speed;
};

Expected<Done> CheckDevices(const StreamOptions& options) {
    const StreamedDevices& devices = options.devices;
    if (devices.names.empty() && !devices.daq && options.from.empty()) {
        return Error{ErrorKind::kInvalidArgument, "NAME is required: a sensor's, or --daq"};
    }
    for (const std::string& name : devices.arm) {
        if (std::ranges::find(devices.names, name) == devices.names.end()) {
            return Error{ErrorKind::kInvalidArgument,
                         "--arm " + name + ": not among the devices to stream"};
        }
    }
    if (IsReadOnce(options.from)) {
        return Error{ErrorKind::kInvalidArgument,
                     "--from " + options.from +
                         ": a recording is read twice here, and this can be read only once; give "
                         "a file, or use vexa-host decode"};
    }
    if (options.recording == "-") {
        return Error{ErrorKind::kInvalidArgument,
                     "--record -: standard output takes the stream; give a file"};
    }
    return Done{};
}

Expected<std::unique_ptr<StreamSink>> MakeSinks(const StreamOptions& options,
                                                const StreamSource& source, PatientOutput& output,
                                                bool& isLive) {
    const TextTarget print = [&output](std::string_view text) { output.Add(text); };
    std::vector<std::unique_ptr<StreamSink>> sinks;
    isLive = false;
    if (options.output.csv || options.output.json) {
        sinks.push_back(
            MakeOutputSink(options.output, print, source.Start(), source.Names().size()));
    } else if (options.lines || !Console().IsTerminal()) {
        sinks.push_back(MakeTextSink(print));
    } else {
        isLive = true;
        sinks.push_back(std::make_unique<LiveView>(
            options.from.empty() ? options.unit.Text() : options.from, source.Labels(),
            [&source](std::size_t device) { return source.StatisticsOf(device); }));
    }
    if (!options.teleplot.empty()) {
        auto plotter = MakeTeleplotSink(options.teleplot, TimeWriter({}, source.Start()),
                                        source.Names().size() > 1);
        if (!plotter) return plotter.error();
        sinks.push_back(std::move(*plotter));
    }
    return MakeTeeSink(std::move(sinks));
}

// A pipe whose reader has left, such as "head", is no failure.
Expected<Done> OutputEnd(const PatientOutput& output) {
    if (output.Fault().empty()) return Done{};
    return Error{ErrorKind::kInvalidArgument, "cannot write to standard output: " + output.Fault()};
}

// The end of the stream holds however slow the reader of the output is: what it does not accept
// waits in the client's queues, which drop their oldest blocks and count them.
class Pump {
  public:
    Pump(StreamSource& source_, StreamSink& sink_, PatientOutput& output_,
         const std::shared_ptr<const DeviceFormats>& formats,
         std::function<std::optional<Error>()> failure_)
        : source(source_), sink(sink_), output(output_), failure(std::move(failure_)) {
        for (std::size_t i = 0; i < source.Names().size(); ++i) {
            readers.emplace_back(source.Names()[i], formats, source.OpenedAt(i));
        }
    }

    Expected<Done> RunUntil(Clock::time_point end, bool saysSilent) {
        const auto hintAt = Clock::now() + kHintAfter;
        while (!IsInterrupted() && Clock::now() < end && !sink.WantsEnd() && !isOver) {
            if (auto received = ReceiveSome(end); !received) return received;
            if (auto updated = sink.Update(); !updated) return updated;
            if (!output.Write(end)) return OutputEnd(output);
            if (const auto error = failure ? failure() : std::nullopt) return *error;
            if (saysSilent && Clock::now() >= hintAt) {
                saysSilent = false;
                source.PrintSilent();
            }
        }
        return Done{};
    }

    // The devices were opened anew.
    void Reopen(double lost, double back) {
        for (std::size_t i = 0; i < readers.size(); ++i) readers[i].Reopen(source.OpenedAt(i));
        sink.AddOutage(lost, back);
    }

    // Writes what can be written yet, and says what was not. The error of a sink that could not
    // write all of it.
    Expected<Done> Finish() {
        sink.Finish();
        const std::size_t unwritten = output.Finish();
        if (unwritten > 0 && output.IsOpen()) {
            std::fprintf(stderr, "vexa-host: the last %zu bytes were not read in time\n",
                         unwritten);
        }
        return sink.Update();
    }

    void PrintUnread() const {
        for (std::size_t i = 0; i < readers.size(); ++i) {
            if (!isBytesOnly[i] || hasSamples[i]) continue;
            std::fprintf(stderr,
                         "vexa-host: the blocks of %s held no samples that are known here: "
                         "--format or --devices says where they stand\n",
                         source.Labels()[i].c_str());
        }
    }

  private:
    static constexpr std::chrono::seconds kHintAfter{3};
    static constexpr Milliseconds kReceiveWait{20};
    static constexpr int kMostAtOnce = 100;  // blocks between two looks at the clock and the output

    // Waits for a block, then passes on what else is there.
    Expected<Done> ReceiveSome(Clock::time_point end) {
        auto wait = std::min(std::chrono::ceil<Milliseconds>(end - Clock::now()), kReceiveWait);
        for (int i = 0; i < kMostAtOnce; ++i, wait = Milliseconds{0}) {
            const auto received = source.Receive(std::max(wait, Milliseconds{0}));
            if (received && *received) {
                Pass(**received);
                continue;
            }
            isOver = received.has_value();
            if (isOver) break;
            const ErrorKind kind = received.error().kind;
            if (kind == ErrorKind::kTimeout || kind == ErrorKind::kCancelled) break;
            return received.error();
        }
        return Done{};
    }

    void Pass(const SourceBlock& from) {
        SampleReader& reader = readers[from.device];
        if (from.opened) reader.Reopen(*from.opened);
        const Block& block = from.block;
        const auto* const samples =
            reader.Read(block.bytes, block.sequence, from.seconds, block.checksumRight);
        (samples != nullptr ? hasSamples : isBytesOnly)[from.device] = true;
        sink.Add({from.device, source.Names()[from.device], source.Labels()[from.device],
                  from.child, from.seconds, block, samples, reader.Format()});
    }

    StreamSource& source;
    StreamSink& sink;
    PatientOutput& output;
    const std::function<std::optional<Error>()> failure;  // of something that goes on beside
    std::vector<SampleReader> readers;                    // of the devices
    std::vector<bool> hasSamples = std::vector<bool>(source.Names().size());
    std::vector<bool> isBytesOnly = std::vector<bool>(source.Names().size());
    bool isOver = false;
};

bool IsLinkLoss(const Error& error) {
    return error.kind == ErrorKind::kLinkLost || error.kind == ErrorKind::kProtocolViolation;
}

// Goes on after a lost link.
Expected<Done> PumpOn(Pump& pump, UnitSource& source, StreamSink& sink, Clock::time_point end,
                      bool saysSilent) {
    for (;; saysSilent = false) {
        auto pumped = pump.RunUntil(end, saysSilent);
        if (pumped || !IsLinkLoss(pumped.error())) return pumped;
        const double lost = source.Now();
        std::fprintf(stderr, "vexa-host: %s; connecting again\n", pumped.error().message.c_str());
        Expected<Done> updated = Done{};
        const auto idle = [&] {
            updated = sink.Update();
            return updated && !sink.WantsEnd();
        };
        const auto reopened = source.Reopen(end, idle);
        if (!reopened) return updated;  // of a sink, or: interrupted, or the time is over
        const double back = source.Now();
        std::fprintf(stderr, "vexa-host: connected again after %.1f s\n", back - lost);
        pump.Reopen(lost, back);
    }
}

// Passes the blocks of a source to the sinks until the end. `source` is of a unit if `unit` is.
ExitCode Show(const StreamOptions& options, StreamSource& source, UnitSource* unit,
              const std::function<std::optional<Error>()>& failure) {
    const auto formats = LoadFormats(options.formats, source.Names());
    if (!formats) return ReportError(formats.error());
    const auto end = options.duration ? Clock::now() + *options.duration : Clock::time_point::max();
    PatientOutput output;
    bool isLive = false;
    auto sinks = MakeSinks(options, source, output, isLive);
    if (!sinks) return ReportError(sinks.error());
    Pump pump(source, **sinks, output, *formats, failure);
    const bool saysSilent = !isLive && unit != nullptr;
    auto pumped = options.reconnects && unit != nullptr
                      ? PumpOn(pump, *unit, **sinks, end, saysSilent)
                      : pump.RunUntil(end, saysSilent);
    const auto finished = pump.Finish();
    if (pumped) pumped = finished;
    sinks->reset();  // the terminal is as before
    source.PrintTotals();
    if (options.output.csv) pump.PrintUnread();
    if (pumped) return kExitDone;
    const ExitCode code = ReportError(pumped.error());
    return output.Fault().empty() ? code : kExitOutput;
}

ExitCode ShowRecording(const StreamOptions& options) {
    const auto speed = options.speed.empty() ? 1.0 : std::strtod(options.speed.c_str(), nullptr);
    if (!(speed > 0) || !std::isfinite(speed)) {
        return ReportError({ErrorKind::kInvalidArgument,
                            "--speed " + options.speed + ": expected a number above 0"});
    }
    auto names = options.devices.names;
    if (options.devices.daq) names.emplace_back(kDaqName);
    CatchInterrupts();
    const auto source = RecordingSource::Open(options.from, names, speed);
    if (!source) return ReportError(source.error());
    if (const auto right = CheckOutput(options.output, (*source)->Names().size()); !right) {
        return ReportError(right.error());
    }
    return Show(options, **source, nullptr, {});
}

ExitCode RunStream(StreamOptions& options) {
    if (const auto right = CheckDevices(options); !right) return ReportError(right.error());
    if (!options.from.empty()) return ShowRecording(options);
    auto names = options.devices.names;
    if (options.devices.daq) names.emplace_back(kDaqName);
    if (const auto formats = LoadFormats(options.formats, names); !formats) {
        return ReportError(formats.error());
    }
    if (const auto right = CheckOutput(options.output, names.size()); !right) {
        return ReportError(right.error());
    }
    std::shared_ptr<SessionRecorder> recorder;
    if (!options.recording.empty()) {
        auto made = SessionRecorder::Create(options.recording);
        if (!made) return ReportError(made.error());
        recorder = std::move(*made);
        options.unit.recorder = recorder;
    }
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    UnitSource source(options.unit, options.devices);
    if (const auto opened = source.Open(**client); !opened) return ReportError(opened.error());
    const ExitCode code = Show(options, source, &source, [&] {
        return recorder ? recorder->Failure() : std::optional<Error>{};
    });
    client->reset();  // the leave-taking belongs to the recording
    if (!recorder) return code;
    std::fprintf(stderr, "vexa-host: %" PRIu64 " frames in %s\n", recorder->Frames(),
                 options.recording.c_str());
    const auto failure = recorder->Failure();
    return failure && code == kExitDone ? ReportError(*failure) : code;
}

}  // namespace

Verb StreamVerb() {
    const auto options = std::make_shared<StreamOptions>();
    std::vector<Option> own = {
        {"NAME", " ", "names of the sensors", WordList{&options->devices.names, 100}},
        {"--daq", "", "take the DAQ over and stream its packets too", &options->devices.daq},
        {"--arm", "NAME", "send this HID sensor the init request", &options->devices.arm},
        {"--for", "TIME", "how long, e.g. 3s, 500ms, 2m (until Ctrl-C)", &options->duration},
    };
    own = WithOutputOptions(options->output, "a JSON object for each block", std::move(own));
    const std::vector<Option> more = {
        {.name = "--lines",
         .placeholder = "",
         .help = "a line for each block, on a terminal as well",
         .target = &options->lines,
         .excludes = {"--csv", "--json"}},
        {"--teleplot", "HOST[:PORT]", "send each sample to a plotter as well (UDP, port 47269)",
         &options->teleplot},
        {"--reconnect", "", "go on after a lost link", &options->reconnects},
        {"--record", "FILE", "record the session as well (pcapng)", &options->recording},
        {.name = "--from",
         .placeholder = "FILE",
         .help = "show a recording, or a capture of the USB bus, instead of a unit",
         .target = &options->from,
         .excludes = {"--record", "--reconnect"}},
        {.name = "--speed",
         .placeholder = "N",
         .help = "so many times as fast as it was recorded (1)",
         .target = &options->speed,
         .needs = "--from"},
    };
    own.insert(own.end(), more.begin(), more.end());
    own = WithFormatOptions(options->formats, std::move(own));
    return {
        .name = "stream",
        .summary = "Show what sensors and the DAQ send: live figures and graphs, lines, CSV, JSON",
        .options = WithUnitOptions(options->unit, std::move(own)),
        .notes =
            std::string(kFormatNotes) + kOutputNotes +
            "The totals go to standard error, with what a slow reader of the output cost.\n"
            "Examples: vexa-host stream Accelerometer Microphone\n"
            "          vexa-host stream Thermometer --arm Thermometer --for 10s --csv > t.csv\n"
            "          vexa-host stream Microphone Accelerometer --csv --out samples --reconnect\n"
            "          vexa-host stream --from session.pcapng --speed 10\n"
            "          vexa-host stream Probe --format x=f32le@0 --format y=f32le@4",
        .run = [options] { return RunStream(*options); }};
}

}  // namespace vexahost::tool
