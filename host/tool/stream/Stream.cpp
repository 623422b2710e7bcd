#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Samples.h"
#include "tool/Verbs.h"
#include "tool/stream/LiveView.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

struct StreamedDevices {
    std::vector<std::string> names;  // of the sensors
    std::vector<std::string> arm;    // those of them that get the init request
    bool daq = false;                // also the DAQ, under the name "DAQ"

    [[nodiscard]] bool Contains(const std::string& name) const;
};

// The devices of a stream: opened, read and counted. One thread at a time.
class StreamSource {
  public:
    // The controller of `client` is open.
    StreamSource(Client& client, const StreamedDevices& devices);

    // Opens all devices. The error of the first that fails.
    Expected<Done> Open();

    // Names of the devices; a device's index here stands for it in all functions.
    [[nodiscard]] const std::vector<std::string>& Names() const { return names; }

    using UseBlock = std::function<void(std::size_t device, const Block& block)>;

    // Waits up to 20 ms for a block of the first device, then calls `use` with each block that has
    // come of any. The error that ended the link.
    Expected<Done> ReceiveAll(const UseBlock& use);

    [[nodiscard]] ChildStatistics StatisticsOf(std::size_t device) const;

    // Prints totals of each device on standard error, with a hint for a silent one.
    void PrintTotals(std::chrono::steady_clock::duration time) const;

  private:
    Expected<Block> Receive(std::size_t device, Milliseconds wait);
    Expected<Done> ReceiveAllOf(std::size_t device, Milliseconds wait, const UseBlock& use);

    Client& client;
    const StreamedDevices& devices;
    std::vector<std::string> names;
};

constexpr const char* kDaqName = "DAQ";
constexpr Milliseconds kReceiveWait{20};

ChildId IdOf(std::size_t device) { return kFirstDeviceId + static_cast<ChildId>(device); }

bool StreamedDevices::Contains(const std::string& name) const {
    return (daq && name == kDaqName) || std::ranges::find(names, name) != names.end();
}

StreamSource::StreamSource(Client& connected, const StreamedDevices& wanted)
    : client(connected), devices(wanted), names(wanted.names) {
    if (devices.daq) names.emplace_back(kDaqName);
}

Expected<Done> StreamSource::Open() {
    if (devices.daq) {
        if (auto taken = client.TakeDaqOver(); !taken) return taken;
    }
    for (std::size_t i = 0; i < devices.names.size(); ++i) {
        const std::string& name = devices.names[i];
        if (auto opened = client.OpenDevice(name, IdOf(i)); !opened) return opened;
        if (std::ranges::find(devices.arm, name) == devices.arm.end()) continue;
        if (auto sent = client.Send(IdOf(i), HidInitRequest()); !sent) return sent;
    }
    return Done{};
}

Expected<Block> StreamSource::Receive(std::size_t device, Milliseconds wait) {
    if (device < devices.names.size()) return client.Receive(IdOf(device), wait);
    return client.ReceiveDaq(wait);
}

Expected<Done> StreamSource::ReceiveAllOf(std::size_t device, Milliseconds wait,
                                          const UseBlock& use) {
    for (;;) {
        const auto block = Receive(device, wait);
        if (!block) {
            if (block.error().kind == ErrorKind::kTimeout) return Done{};
            return block.error();
        }
        use(device, *block);
        wait = Milliseconds{0};
    }
}

Expected<Done> StreamSource::ReceiveAll(const UseBlock& use) {
    for (std::size_t i = 0; i < names.size(); ++i) {
        const Milliseconds wait = i == 0 ? kReceiveWait : Milliseconds{0};
        if (auto received = ReceiveAllOf(i, wait, use); !received) return received;
    }
    return Done{};
}

ChildStatistics StreamSource::StatisticsOf(std::size_t device) const {
    if (device < devices.names.size()) {
        return client.StatisticsOf(IdOf(device)).value_or(ChildStatistics{});
    }
    const auto all = client.Statistics();
    return {all.daqPackets, all.daqBytes, 0, all.daqDropped};
}

void StreamSource::PrintTotals(std::chrono::steady_clock::duration time) const {
    const double seconds = std::max(std::chrono::duration<double>(time).count(), 0.001);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto counts = StatisticsOf(i);
        const bool isDaq = i == devices.names.size();
        std::fprintf(stderr, "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, ", names[i].c_str(),
                     counts.blocks, counts.bytes);
        if (isDaq) {
            std::fprintf(stderr, "%" PRIu64 " with a wrong checksum, ",
                         client.Statistics().daqWrongChecksums);
        } else {
            std::fprintf(stderr, "%" PRIu64 " gaps in the sequence, ", counts.sequenceGaps);
        }
        std::fprintf(
            stderr, "%" PRIu64 " blocks dropped here; %.1f blocks/s, %.0f bytes/s%s\n",
            counts.dropped, static_cast<double>(counts.blocks) / seconds,
            static_cast<double>(counts.bytes) / seconds,
            counts.blocks == 0 && !isDaq ? " (a HID sensor reports only when armed: --arm)" : "");
    }
}

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
        if (!format) return format.error();
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

// A pipe whose reader has left, such as "head", is no failure.
Expected<Done> OutputEnd() {
    if (errno == EPIPE) return Done{};
    return Error{ErrorKind::kInvalidArgument,
                 std::string("cannot write to standard output: ") + std::strerror(errno)};
}

Expected<Done> Pump(StreamSource& source, StreamSink& sink, std::span<const SampleFormat> formats,
                    Clock::time_point end) {
    const auto start = Clock::now();
    const auto pass = [&](std::size_t device, const Block& block) {
        const std::string& name = source.Names()[device];
        const std::chrono::duration<double> since = block.receivedAt - start;
        const auto reading =
            block.checksumRight ? ReadBlock(formats, name, block.bytes) : std::optional<Reading>{};
        sink.Add({device, name, std::max(since.count(), 0.0), block, reading});
    };
    while (!IsInterrupted() && Clock::now() < end && !sink.WantsEnd()) {
        if (auto received = source.ReceiveAll(pass); !received) return received;
        errno = 0;
        sink.Update();
        if (std::ferror(stdout) != 0) return OutputEnd();
    }
    return Done{};
}

ExitCode RunStream(const StreamOptions& options) {
    if (const auto right = CheckDevices(options.devices); !right) {
        return ReportError(right.error());
    }
    const auto formats = ParseFormats(options);
    if (!formats) return ReportError(formats.error());
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    StreamSource source(**client, options.devices);
    if (const auto opened = source.Open(); !opened) return ReportError(opened.error());

    CatchInterrupts();
    signal(SIGPIPE, SIG_IGN);
    // From here, not from connecting: a unit may take half a second to notice its cable.
    const auto start = Clock::now();
    const auto end = options.duration ? start + *options.duration : Clock::time_point::max();
    const auto pumped = Pump(source, *MakeSink(options, source), *formats, end);
    source.PrintTotals(Clock::now() - start);
    if (!pumped) return ReportError(pumped.error());
    LeaveInOrder(**client);
    return kExitDone;
}

}  // namespace

Verb StreamVerb() {
    const auto options = std::make_shared<StreamOptions>();
    return {
        .name = "stream",
        .summary = "Show what sensors and the DAQ send: live figures and graphs, lines, CSV, JSON",
        .options = WithUnitOptions(
            options->unit,
            {{"NAME", " ", "names of the sensors", WordList{&options->devices.names, 100}},
             {"--daq", "", "take the DAQ over and stream its packets too", &options->devices.daq},
             {"--arm", "NAME", "send this HID sensor the init request", &options->devices.arm},
             {"--for", "TIME", "how long, e.g. 3s, 500ms, 2m (until Ctrl-C)", &options->duration},
             {"--csv", "", "a row for each sample", &options->csv},
             {.name = "--json",
              .placeholder = "",
              .help = "a JSON object for each block",
              .target = &options->json,
              .excludes = {"--csv"}},
             {.name = "--lines",
              .placeholder = "",
              .help = "a line for each block, on a terminal as well",
              .target = &options->lines,
              .excludes = {"--csv", "--json"}},
             {"--format", "FORMAT", "where samples stand in a block, one for each channel",
              &options->formats}}),
        .notes =
            "FORMAT is [NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]: TYPE is u8, i8, or one of u16 i16 u32 "
            "i32 f32\n"
            "f64 with le or be at the end; OFFSET counts bytes from 0; COUNT samples stand there, "
            "or as "
            "many\n"
            "as fit; NAME: makes it one device's own. Without a format those of virtual units are "
            "known.\n"
            "CSV columns: time_s,device,sequence,device_time_s,channel,index,value. JSON keys: "
            "time_s,\n"
            "device, sequence, device_time_s, channels {NAME: [samples]} or bytes. time_s counts "
            "from the\n"
            "start of the stream. The totals go to standard error.\n"
            "Examples: vexa-host stream Accelerometer Microphone\n"
            "          vexa-host stream Thermometer --arm Thermometer --for 10s --csv > t.csv\n"
            "          vexa-host stream Probe --format x=f32le@0 --format y=f32le@4",
        .run = [options] { return RunStream(*options); }};
}

}  // namespace vexahost::tool
