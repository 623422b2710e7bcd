// The table of all settings. A Describe function shows every setting of a section to a visitor:
// key, value, limits, meaning. Visitors read settings, write them, or make the schema
// (Settings.cpp, Schema.cpp). The schema has to allow what is right in any case (kCoversAll); the
// others get the limits of the case at hand.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "model/Requests.h"
#include "model/Scenario.h"

namespace vexa::unit {

inline constexpr std::uint32_t kMaxUnsigned = UINT32_MAX;

struct Limits {
    std::uint32_t least;
    std::uint32_t most;
};
inline constexpr Limits kAnyNumber = {0, kMaxUnsigned};
inline constexpr Limits kDelay = {0, kMaxDelayMs};
inline constexpr Limits kTime = {1, kMaxDelayMs};
inline constexpr double kMaxSampleRate = 100000;
inline constexpr double kMaxSpeed = 1000;
inline constexpr std::string_view kSimulated = "a device without a source";

enum class Need { kOptional, kRequired };

// The tables of words are functions: a table that is destroyed at the end of the process would be
// missed by the unit's threads, which run until then.
template <typename Value>
using Words = std::vector<std::pair<std::string_view, Value>>;

inline Words<Waveform> Waveforms() {
    return {{"sine", Waveform::kSine},
            {"ramp", Waveform::kRamp},
            {"square", Waveform::kSquare},
            {"noise", Waveform::kNoise}};
}

inline Words<Parity> Parities() {
    return {{"none", Parity::kNone}, {"even", Parity::kEven}, {"odd", Parity::kOdd}};
}

inline Words<FlowControl> FlowControls() {
    return {{"none", FlowControl::kNone},
            {"hardware", FlowControl::kHardware},
            {"software", FlowControl::kSoftware}};
}

inline Words<StrayTime> StrayTimes() {
    return {{"interval", StrayTime::kInterval},
            {"before", StrayTime::kBeforeAnswer},
            {"after", StrayTime::kAfterAnswer}};
}

inline Words<FaultAction> Actions() {
    return {{"fail", FaultAction::kFail},         {"block", FaultAction::kBlock},
            {"late", FaultAction::kLate},         {"short", FaultAction::kShort},
            {"oversize", FaultAction::kOversize}, {"corrupt", FaultAction::kCorrupt},
            {"data", FaultAction::kData}};
}

inline Words<int> Errors() {
    return {
        {"EACCES", EACCES}, {"EAGAIN", EAGAIN}, {"EBADF", EBADF},         {"EBUSY", EBUSY},
        {"EFAULT", EFAULT}, {"EINTR", EINTR},   {"EINVAL", EINVAL},       {"EIO", EIO},
        {"EMFILE", EMFILE}, {"ENODEV", ENODEV}, {"ENOENT", ENOENT},       {"ENOMEM", ENOMEM},
        {"ENOSPC", ENOSPC}, {"ENOTTY", ENOTTY}, {"ENXIO", ENXIO},         {"EPERM", EPERM},
        {"EPIPE", EPIPE},   {"EPROTO", EPROTO}, {"ESHUTDOWN", ESHUTDOWN}, {"ETIMEDOUT", ETIMEDOUT}};
}

// The word that stands for `value`, which must have one.
template <typename Value>
[[nodiscard]] std::string_view WordFor(const Words<Value>& words, Value value) {
    return std::ranges::find(words, value, [](const auto& word) { return word.second; })->first;
}

template <typename Value>
[[nodiscard]] std::vector<std::string_view> TextsOf(const Words<Value>& words) {
    std::vector<std::string_view> texts;
    for (const auto& word : words) texts.push_back(word.first);
    return texts;
}

inline Words<FaultAction> ActionsOf(Call call) {
    Words<FaultAction> possible;
    for (const auto& word : Actions()) {
        if ((InfoOf(call).actions & Bits(word.second)) != 0) possible.push_back(word);
    }
    return possible;
}

template <typename Visitor>
void Describe(Visitor& visit, SourceSettings& source) {
    visit.String("iio", source.iio, "the name of an IIO device",
                 "a sensor of the kernel (Industrial I/O): its name, label or id");
    visit.String("hidraw", source.hidraw, "VENDOR:PRODUCT[:SERIAL] or a path",
                 "a HID device: VENDOR:PRODUCT[:SERIAL], in hexadecimal, or its path");
    visit.String("serial", source.serial, "the path of a serial line", "a serial line: its path");
    visit.String("file", source.file, "the path of a .csv or .pcapng file",
                 "samples (.csv), or a device of a recording (.pcapng)");
    const bool iio = !source.iio.empty();
    const bool serial = !source.serial.empty();
    const bool samples = iio || source.file.ends_with(".csv");
    visit.Fits(iio + serial + !source.hidraw.empty() + !source.file.empty() == 1,
               "one of \"iio\", \"hidraw\", \"serial\" and \"file\"");
    visit.Fits(source.file.empty() || samples || source.file.ends_with(".pcapng"),
               "a file that ends in .csv or .pcapng");
    if (visit.Applies("channels", samples, "\"iio\" and a .csv file")) {
        visit.Strings("channels", source.channels, "a list of channels", "default: all");
    }
    if (visit.Applies("rate", samples, "\"iio\" and a .csv file") && visit.Shows(source.rate > 0)) {
        visit.Number("rate", source.rate, kMaxSampleRate,
                     "samples of each channel per second; default: as it is set, or recorded");
    }
    if (visit.Applies("trigger", iio, "\"iio\"")) {
        visit.String("trigger", source.trigger, "the name of a trigger", "what starts each sample");
    }
    if (visit.Applies("scaled", iio, "\"iio\"")) {
        visit.Bool("scaled", source.scaled, "32-bit floats in the channel's unit, not counts");
    }
    if (visit.Applies("baud", serial, "\"serial\"")) {
        visit.Unsigned("baud", source.baud, kAnyNumber, "bits per second");
        visit.Fits(IsBaudRate(source.baud),
                   "a rate that serial lines have, such as 9600 or 115200, as \"baud\"");
    }
    if (visit.Applies("parity", serial, "\"serial\"")) {
        visit.Choice("parity", source.parity, Parities(), "the parity bit");
    }
    if (visit.Applies("flow", serial, "\"serial\"")) {
        visit.Choice("flow", source.flow, FlowControls(), "flow control");
    }
    if (visit.Applies("gapMs", serial, "\"serial\"")) {
        visit.Unsigned("gapMs", source.gapMs, {1, 10000}, "ms without a byte that end a block");
    }
    if (visit.Applies("delimiter", serial, "\"serial\"")) {
        visit.String("delimiter", source.delimiter, "one byte or more",
                     "bytes that end a block: \"\\n\"");
    }
    if (visit.Applies("child", source.file.ends_with(".pcapng"), "a .pcapng file")) {
        visit.String("child", source.child, "the name of a device",
                     "the device as it is called in the recording; default: the same name");
    }
    if (visit.Applies("repeat", !source.file.empty(), "\"file\"")) {
        visit.Bool("repeat", source.repeat, "begins again at the end");
    }
    if (visit.Applies("speed", !source.file.empty(), "\"file\"")) {
        visit.Number("speed", source.speed, kMaxSpeed, "how many times as fast");
    }
}

template <typename Visitor>
void Describe(Visitor& visit, DeviceSettings& device) {
    visit.Name("name", device.name, "the name under which it is opened", Need::kRequired);
    visit.Unsigned("type", device.type, {0, 255},
                   "8, 9, 11: byte stream; 2, 3, 4: HID; hosts cannot open others");
    visit.Except("type", device.type, kDaqType,
                 "a sensor's type (the acquisition board, 5, is \"daq\")");
    // A change of type can change the size of the blocks, too.
    const bool hid = IsHidType(device.type);
    if (hid) device.blockSize = kHidReportSize;
    if (!hid && device.blockSize < kMinBlockSize) device.blockSize = DeviceSettings().blockSize;
    const bool small = hid || Visitor::kCoversAll;
    const bool large = !hid || Visitor::kCoversAll;
    visit.Bool("attached", device.attached, "can be found and opened");
    visit.Object("source", device.source, "where its data comes from; default: it is simulated");
    if (device.source) {
        const bool reports = !device.source->hidraw.empty();
        const bool either = device.source->file.ends_with(".pcapng");
        visit.Fits(reports == hid || either, reports
                                                 ? "a type of 2, 3 or 4 with a \"hidraw\" source"
                                                 : "no HID type with this source, but 8, 9 or 11");
    }
    const bool simulated = !device.source;
    if (visit.Applies("blockSize", simulated, kSimulated)) {
        visit.Unsigned(
            "blockSize", device.blockSize,
            {small ? kHidReportSize : kMinBlockSize, large ? kMaxBlockSize : kHidReportSize},
            "bytes in a block; at least 10, for HID types 8");
    }
    if (visit.Applies("rate", simulated, kSimulated)) {
        visit.Rate("rate", device.rate, "blocks per second; 0: none by itself");
    }
    if (visit.Applies("waveform", simulated, kSimulated)) {
        visit.Choice("waveform", device.waveform, Waveforms(), "waveform of the samples");
    }
    if (visit.Applies("echo", simulated, kSimulated)) {
        visit.Bool("echo", device.echo, "sends back what is written to it");
    }
}

template <typename Visitor>
void Describe(Visitor& visit, DaqSettings& daq) {
    visit.Name("name", daq.name, "the name under which it is opened");
    visit.Bool("present", daq.present, "can be found and opened");
    visit.Object("source", daq.source, "an ADC (iio), or a board on a line (serial)");
    visit.Fits(!daq.source || !daq.source->iio.empty() || !daq.source->serial.empty(),
               "\"iio\" or \"serial\" as the source of the board");
    visit.Bool("answersSync", daq.answersSync, "answers the initial sync");
    visit.Unsigned("syncDelayMs", daq.syncDelayMs, kDelay, "ms before it answers the sync");
    visit.Rate("measurementRate", daq.measurementRate,
               "measurement packets per second once it is synced");
    visit.Unsigned("measurementSize", daq.measurementSize, {kMinBlockSize, kMaxMeasurementSize},
                   "bytes in a measurement packet");
    visit.Unsigned("checksumErrorEvery", daq.checksumErrorEvery, kAnyNumber,
                   "every nth measurement has a wrong checksum; 0: none");
    visit.Bool("acknowledges", daq.acknowledges, "answers each command");
}

template <typename Visitor>
void Describe(Visitor& visit, Stray& stray) {
    visit.Choice("when", stray.when, StrayTimes(), "at intervals, or before or after each answer");
    if (visit.Shows(stray.when == StrayTime::kInterval)) {
        visit.Unsigned("intervalMs", stray.intervalMs, kTime, "ms from one to the next");
    }
    visit.Unsigned("command", stray.command, kAnyNumber, "the command that it claims to answer",
                   Need::kRequired);
    visit.Signed("response", stray.response, "its response", Need::kRequired);
}

template <typename Visitor>
void Describe(Visitor& visit, ProgramSettings& program) {
    constexpr std::string_view kCommand = "a program and its arguments, as a list of texts";
    visit.Strings("activate", program.activate, kCommand, "takes the hardware");
    visit.Strings("deactivate", program.deactivate, kCommand, "gives the hardware up");
    visit.Strings("query", program.query, kCommand, "exits with 0 if it drives the hardware");
    visit.Strings("notify", program.notify, kCommand, "is told of the hardware's return");
    visit.Unsigned("timeoutMs", program.timeoutMs, kTime, "ms after which it is ended");
}

template <typename Visitor>
void Describe(Visitor& visit, ApplicationSettings& application) {
    visit.Bool("holds", application.holds, "drives the hardware; at the start only DAQ does");
    visit.Unsigned("delayMs", application.delayMs, kDelay, "ms before each answer");
    visit.Bool("silent", application.silent, "accepts commands but never answers");
    visit.Numbers("refuses", application.refuses,
                  "commands that it refuses: 1 activate, 2 deactivate, 3 query, 4 notify");
    visit.Responses("responses", application.responses, "fixed responses, by command: {\"3\": -1}");
    visit.Bool("initFails", application.initFails, "no session with it can be opened");
    visit.List("strays", application.strays, "answers without a request");
    visit.Object("program", application.program, "commands to run in place of a simulation");
}

template <typename Visitor>
void Describe(Visitor& visit, CableFlapping& flapping) {
    visit.Unsigned("inMs", flapping.inMs, kTime, "ms that it is in");
    visit.Unsigned("outMs", flapping.outMs, kTime, "ms that it is out");
    visit.Unsigned("times", flapping.times, kAnyNumber, "how often it goes out; 0: without end");
    visit.Unsigned("jitter", flapping.jitter, {0, 100},
                   "percent by which each time is longer or shorter, at random");
}

template <typename Visitor>
void Describe(Visitor& visit, CableSettings& cable) {
    visit.Bool("in", cable.in, "hosts can plug in");
    visit.Object("flap", cable.flapping, "goes out and in by itself");
}

template <typename Visitor>
void Describe(Visitor& visit, Fault& fault) {
    const auto is = [&](FaultAction action) { return fault.action == action; };
    visit.CallName("call", fault.call, "the call that it is set on");
    visit.Choice("action", fault.action, Visitor::kCoversAll ? Actions() : ActionsOf(fault.call),
                 "what happens to the call", Need::kRequired);
    if (visit.Applies("for", InfoOf(fault.call).named,
                      "calls that concern one device or application")) {
        visit.Name("for", fault.target, "only for this device or application");
    }
    if (visit.Applies("later", !fault.target.empty(), "\"for\"") && visit.Shows(fault.later)) {
        visit.Bool("later", fault.later, "the device may be attached later");
    }
    if (visit.Shows(fault.skip != 0)) {
        visit.Unsigned("skip", fault.skip, kAnyNumber, "calls that it leaves alone first");
    }
    visit.Unsigned("count", fault.count, {1, kMaxUnsigned}, "calls that it hits then; default all");
    if (visit.Shows(fault.chance != 100)) {
        visit.Unsigned("chance", fault.chance, {1, 100},
                       "percent of those calls that it hits, at random");
    }
    if (visit.Applies("ms", (Bits(fault.action) & kTimedActions) != 0, "block and late")) {
        visit.Unsigned("ms", fault.ms, kTime, "how long to block, or how late to return",
                       Need::kRequired);
    }
    const bool mayBeZero = is(FaultAction::kShort) || Visitor::kCoversAll;
    if (visit.Applies("bytes", is(FaultAction::kShort) || is(FaultAction::kOversize),
                      "short and oversize")) {
        visit.Unsigned("bytes", fault.bytes, {mayBeZero ? 0U : 1U, kMaxBlockSize},
                       "short: most bytes to read or write; oversize: size of the block",
                       Need::kRequired);
    }
    if (visit.Applies("offset", is(FaultAction::kCorrupt), "corrupt")) {
        visit.Unsigned("offset", fault.offset, {0, kMaxBlockSize},
                       "the byte that is inverted; default the middle one");
    }
    if (visit.Applies("errno", is(FaultAction::kFail) && IsNodeCall(fault.call),
                      "fail of the calls node.*")) {
        visit.Choice("errno", fault.error, Errors(), "how the call fails");
    }
}

template <typename Visitor>
void Describe(Visitor& visit, TimelineStep& step) {
    visit.Duration("at", step.atMs, 0, "when, counted from the start of the unit: \"5s\"",
                   Need::kRequired);
    visit.Duration("repeat", step.repeatMs, 1, "interval at which it is repeated");
    if (visit.Applies("times", step.repeatMs.has_value(), "\"repeat\"")) {
        visit.Unsigned("times", step.times, kAnyNumber, "how often it is repeated; 0: without end");
    }
    visit.template Request<CableSettings>("cable", "cable", step, "changes the cable");
    visit.template Request<DeviceSettings>("attach", "attach", step,
                                           "attaches a device: a known one, or a new one");
    visit.NamedRequest("detach", "detach", "name", step, "detaches the device of that name");
    visit.template Request<DaqSettings>("daq", "daq", step, "changes the acquisition board");
    visit.ApplicationRequests("applications", step, "changes applications");
    visit.template Request<Fault>("fault", "fault.set", step, "sets a fault");
    visit.NamedRequest("clear", "fault.clear", "call", step,
                       "clears the faults of that call, or \"all\"");
}

template <typename Visitor>
void Describe(Visitor& visit, WaitSettings& wait) {
    visit.Name("open", wait.open, "the device has an open stream");
    visit.Name("streaming", wait.streaming, "the service has accepted a block of the device");
    visit.Name("closed", wait.closed, "the device has no open stream");
    visit.Bool("later", wait.later, "the device may be attached later");
    visit.CallName("call", wait.call, "the call has been made");
    if (visit.Applies("count", wait.call.has_value(), "\"call\"")) {
        visit.Unsigned("count", wait.count, {1, kMaxUnsigned}, "at least this often; default 1");
    }
    visit.Bool("host", wait.host, "true: a host is connected; false: none is");
    visit.Bool("cable", wait.cable, "true: hosts can plug in; false: they cannot");
    visit.Bool("daq", wait.daq, "true: the service is linked to the board; false: it is not");
    visit.Unsigned("bytesToHost", wait.bytesToHost, kAnyNumber,
                   "at least this many bytes have been sent");
    visit.Unsigned("bytesFromHost", wait.bytesFromHost, kAnyNumber,
                   "at least this many bytes have been received");
    visit.Duration("for", wait.forMs, 0, "timeout; default \"10s\"", Need::kOptional);
}

template <typename Visitor>
void Describe(Visitor& visit, NodeSettings& node) {
    visit.Bool("present", node.present, "the USB node exists");
}

template <typename Visitor>
void Describe(Visitor& visit, LibrarySettings& library) {
    visit.Bool("initFails", library.initFails, "VEXA_Init fails");
    visit.Version("version", library.majorVersion, library.minorVersion, "major, minor");
}

template <typename Visitor>
void Describe(Visitor& visit, Scenario& scenario) {
    visit.Text("$schema", nullptr, "the schema of this file, for editors");
    visit.Text("description", &scenario.description, "a line for vexa-unit scenarios");
    visit.List("devices", scenario.devices, "the sensors, in place of the default ones");
    visit.Object("daq", scenario.daq, "the acquisition board");
    visit.Members("applications", scenario.applications, "the applications on the unit");
    visit.Object("node", scenario.node, "the USB node");
    visit.Object("library", scenario.library, "the device-access library");
    visit.Object("cable", scenario.cable, "the cable to the host");
    visit.List("faults", scenario.faults, "faults that are set from the start");
    visit.List("timeline", scenario.timeline, "changes at set times");
    visit.Unsigned("seed", scenario.seed, kAnyNumber,
                   "random seed of noise, faults with a chance and flapping with jitter");
}

// The keys of a section.
template <typename Section>
[[nodiscard]] std::vector<std::string_view> KeysOf();

}  // namespace vexa::unit
