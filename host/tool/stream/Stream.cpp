#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "tool/Connection.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "tool/Output.h"
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
    StreamSource(Client& client, const UnitAddress& unit, const StreamedDevices& devices);

    // Opens all devices. The error of the first that fails.
    Expected<Done> Open();

    // Names of the devices; a device's index here stands for it in all functions.
    [[nodiscard]] const std::vector<std::string>& Names() const { return names; }

    // The same; with the child's id where two devices share a name.
    [[nodiscard]] const std::vector<std::string>& Labels() const { return labels; }

    struct DeviceBlock {
        std::size_t device;
        std::optional<ChildId> child;
        Block block;
    };
    // Waits for the oldest block of all devices.
    Expected<DeviceBlock> Receive(Milliseconds wait);

    [[nodiscard]] ChildStatistics StatisticsOf(std::size_t device) const;

    // Says on standard error which sensors have sent nothing so far, and why that may be.
    void PrintSilent() const;

    // Prints totals of each device on standard error.
    void PrintTotals(std::chrono::steady_clock::duration time) const;

  private:
    void WarnOfSharedTypes() const;

    Client& client;
    const UnitAddress& unit;
    const StreamedDevices& devices;
    std::vector<std::string> names;
    std::vector<std::string> labels;
    std::vector<ChildId> ids;  // of the sensors
};

constexpr const char* kDaqName = "DAQ";
constexpr Milliseconds kReceiveWait{20};

bool StreamedDevices::Contains(const std::string& name) const {
    return (daq && name == kDaqName) || std::ranges::find(names, name) != names.end();
}

StreamSource::StreamSource(Client& connected, const UnitAddress& unit_,
                           const StreamedDevices& wanted)
    : client(connected), unit(unit_), devices(wanted), names(wanted.names), labels(names) {
    for (std::size_t i = 0; i < devices.names.size(); ++i) {
        ids.push_back(kFirstDeviceId + static_cast<ChildId>(i));
        if (std::ranges::count(names, names[i]) < 2) continue;
        char id[16];
        std::snprintf(id, sizeof id, "/0x%X", ids[i]);
        labels[i] += id;
    }
    if (!devices.daq) return;
    names.emplace_back(kDaqName);
    labels.emplace_back(kDaqName);
}

// The service opens the first attached device of the type that a name stands for.
void StreamSource::WarnOfSharedTypes() const {
    const auto attached = ListDevices(unit);
    for (const VirtualDevice& first : attached) {
        std::string sharing;
        for (const VirtualDevice& device : attached) {
            const bool isWanted = std::ranges::find(names, device.name) != names.end();
            if (isWanted && device.type == first.type && device.name != first.name) {
                sharing += (sharing.empty() ? "" : ", ") + device.name;
            }
        }
        if (sharing.empty() ||
            &first != &*std::ranges::find(attached, first.type, &VirtualDevice::type)) {
            continue;
        }
        std::fprintf(stderr,
                     "vexa-host: %s: shows %s, the first attached device of the same type, %" PRIu64
                     "\n",
                     sharing.c_str(), first.name.c_str(), first.type);
    }
}

Expected<Done> StreamSource::Open() {
    WarnOfSharedTypes();
    if (devices.daq) {
        if (auto taken = client.TakeDaqOver(); !taken) return taken;
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::string& name = names[i];
        if (auto opened = OpenDevice(client, unit, name, ids[i]); !opened) return opened;
        if (std::ranges::find(devices.arm, name) == devices.arm.end()) continue;
        if (auto sent = client.Send(ids[i], HidInitRequest()); !sent) return sent;
    }
    return Done{};
}

Expected<StreamSource::DeviceBlock> StreamSource::Receive(Milliseconds wait) {
    auto received = client.ReceiveAny(ids, devices.daq, wait);
    if (!received) return received.error();
    const std::size_t device = received->child ? *received->child - kFirstDeviceId : ids.size();
    return DeviceBlock{device, received->child, std::move(received->block)};
}

ChildStatistics StreamSource::StatisticsOf(std::size_t device) const {
    if (device < ids.size()) return client.StatisticsOf(ids[device]).value_or(ChildStatistics{});
    const auto all = client.Statistics();
    return {all.daqPackets, all.daqBytes, all.daqSequenceGaps, all.daqDropped};
}

void StreamSource::PrintSilent() const {
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (StatisticsOf(i).blocks > 0) continue;
        std::fprintf(stderr,
                     "vexa-host: %s has sent nothing so far; a HID sensor reports only when armed: "
                     "--arm %s\n",
                     labels[i].c_str(), names[i].c_str());
    }
}

void StreamSource::PrintTotals(std::chrono::steady_clock::duration time) const {
    const double seconds = std::max(std::chrono::duration<double>(time).count(), 0.001);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto counts = StatisticsOf(i);
        const bool isDaq = i == ids.size();
        std::fprintf(
            stderr, "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, %" PRIu64 " gaps in the sequence, ",
            labels[i].c_str(), counts.blocks, counts.bytes, counts.sequenceGaps);
        if (isDaq) {
            std::fprintf(stderr, "%" PRIu64 " with a wrong checksum, ",
                         client.Statistics().daqWrongChecksums);
        }
        std::fprintf(
            stderr, "%" PRIu64 " blocks dropped here; %.1f blocks/s, %.0f bytes/s%s\n",
            counts.dropped, static_cast<double>(counts.blocks) / seconds,
            static_cast<double>(counts.bytes) / seconds,
            counts.blocks == 0 && !isDaq ? " (a HID sensor reports only when armed: --arm)" : "");
    }
    const std::uint64_t lost = client.Statistics().resynchronisations;
    if (lost == 0) return;
    std::fprintf(stderr,
                 "vexa-host: the unit cut packets %" PRIu64
                 " times, as when its output buffer is full; blocks are missing there\n",
                 lost);
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

std::unique_ptr<StreamSink> MakeSink(const StreamOptions& options, const StreamSource& source,
                                     PatientOutput& output) {
    if (options.csv) return MakeCsvSink(output);
    if (options.json) return MakeJsonSink(output);
    if (options.lines || !Console().IsTerminal()) return MakeTextSink(output);
    return std::make_unique<LiveView>(
        options.unit.Text(), source.Labels(),
        [&source](std::size_t device) { return source.StatisticsOf(device); });
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
         std::span<const SampleFormat> formats_)
        : source(source_), sink(sink_), output(output_), formats(formats_) {}

    Expected<Done> RunUntil(Clock::time_point end, bool saysSilent) {
        const auto hintAt = start + kHintAfter;
        while (!IsInterrupted() && Clock::now() < end && !sink.WantsEnd()) {
            if (auto received = ReceiveSome(end); !received) return received;
            sink.Update();
            if (!output.Write(end)) return OutputEnd(output);
            if (saysSilent && Clock::now() >= hintAt) {
                saysSilent = false;
                source.PrintSilent();
            }
        }
        return Done{};
    }

  private:
    static constexpr std::chrono::seconds kHintAfter{3};
    static constexpr int kMostAtOnce = 100;  // blocks between two looks at the clock and the output

    // Waits for a block, then passes on what else is there.
    Expected<Done> ReceiveSome(Clock::time_point end) {
        auto wait = std::min(std::chrono::ceil<Milliseconds>(end - Clock::now()), kReceiveWait);
        for (int i = 0; i < kMostAtOnce; ++i, wait = Milliseconds{0}) {
            const auto received = source.Receive(std::max(wait, Milliseconds{0}));
            if (received) {
                Pass(*received);
                continue;
            }
            const ErrorKind kind = received.error().kind;
            if (kind == ErrorKind::kTimeout || kind == ErrorKind::kCancelled) break;
            return received.error();
        }
        return Done{};
    }

    void Pass(const StreamSource::DeviceBlock& from) {
        const std::string& name = source.Names()[from.device];
        const Block& block = from.block;
        const std::chrono::duration<double> since = block.receivedAt - start;
        const auto reading =
            block.checksumRight ? ReadBlock(formats, name, block.bytes) : std::optional<Reading>{};
        sink.Add({from.device, name, source.Labels()[from.device], from.child,
                  std::max(since.count(), 0.0), block, reading});
    }

    StreamSource& source;
    StreamSink& sink;
    PatientOutput& output;
    const std::span<const SampleFormat> formats;
    const Clock::time_point start = Clock::now();
};

ExitCode RunStream(const StreamOptions& options) {
    if (const auto right = CheckDevices(options.devices); !right) {
        return ReportError(right.error());
    }
    const auto formats = ParseFormats(options);
    if (!formats) return ReportError(formats.error());
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    StreamSource source(**client, options.unit, options.devices);
    if (const auto opened = source.Open(); !opened) return ReportError(opened.error());

    // From here, not from connecting: a unit may take half a second to notice its cable.
    const auto start = Clock::now();
    const auto end = options.duration ? start + *options.duration : Clock::time_point::max();
    PatientOutput output;
    auto sink = MakeSink(options, source, output);
    const bool isLive = dynamic_cast<LiveView*>(sink.get()) != nullptr;
    const auto pumped = Pump(source, *sink, output, *formats).RunUntil(end, !isLive);
    sink.reset();  // the terminal is as before
    source.PrintTotals(Clock::now() - start);
    const std::size_t unwritten = output.Finish();
    if (unwritten > 0 && output.IsOpen()) {
        std::fprintf(stderr, "vexa-host: the last %zu bytes were not read in time\n", unwritten);
    }
    if (pumped) return kExitDone;
    const ExitCode code = ReportError(pumped.error());
    return output.Fault().empty() ? code : kExitOutput;
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
            "CSV columns: time_s,device,child,sequence,device_time_s,channel,index,value. JSON "
            "keys: time_s,\n"
            "device, child, sequence, device_time_s, channels {NAME: [samples]} or bytes. time_s "
            "counts from\n"
            "the start of the stream. The totals go to standard error, with what a slow reader of "
            "the\n"
            "output cost.\n"
            "Examples: vexa-host stream Accelerometer Microphone\n"
            "          vexa-host stream Thermometer --arm Thermometer --for 10s --csv > t.csv\n"
            "          vexa-host stream Probe --format x=f32le@0 --format y=f32le@4",
        .run = [options] { return RunStream(*options); }};
}

}  // namespace vexahost::tool
