#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tool/Console.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"
#include "tool/recording/DecodeSamples.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kDecodedBytesShown = 24;
constexpr std::size_t kAllBytes = 0xFFFF;

struct DecodeOptions {
    DecodeSamplesOptions samples;  // the file among them
    bool wantsSamples = false;     // with --json
    bool whole = false;
};

double Seconds(CaptureTime time) { return std::chrono::duration<double>(time).count(); }

const char* DirectionName(Direction direction) {
    return direction == Direction::kToUnit ? "to-unit" : "from-unit";
}

// Prints packets, as text or as JSON.
class Printer {
  public:
    explicit Printer(const DecodeOptions& options_) : options(options_) {}

    // Counts a frame, recorded at `time`; the packets printed next belong to it.
    void Begin(CaptureTime time) {
        if (!start) start = time;
        ++frame;
    }

    void Print(const DecodedPacket& packet) {
        if (options.samples.output.json) {
            PrintJson(packet);
        } else {
            PrintText(packet);
        }
        ++packets;
        if (!packet.checksumRight) ++wrong;
    }

    void PrintSummary() const {
        std::fflush(stdout);
        std::fprintf(stderr, "vexa-host: %zu frames, %zu packets and events, %zu of them faulty\n",
                     frame, packets, wrong);
    }

  private:
    void PrintText(const DecodedPacket& packet) const {
        char head[64];
        const bool event = packet.kind == PacketKind::kEvent;
        const bool toUnit = packet.direction == Direction::kToUnit;
        const char* const arrow = event ? "--" : toUnit ? "->" : "<-";
        std::snprintf(head, sizeof head, "%5zu %10.6f %s ", frame, Seconds(packet.time - *start),
                      arrow);
        const Style style = !packet.checksumRight ? Style::kBad
                            : event               ? Style::kDim
                            : toUnit              ? Style::kToUnit
                                                  : Style::kFromUnit;
        console.Line(style, head, packet.text,
                     HexText(packet.bytes, options.whole ? kAllBytes : kDecodedBytesShown));
    }

    void PrintJson(const DecodedPacket& packet) const {
        JsonObject line;
        line.Add("frame", frame)
            .Add("time", Seconds(packet.time))
            .Add("direction", DirectionName(packet.direction))
            .Add("kind", KindName(packet.kind));
        if (packet.child) line.Add("child", *packet.child);
        line.Add("checksum", packet.checksumRight ? "right" : "wrong")
            .Add("text", packet.text)
            .Add("bytes", HexText(packet.bytes, kAllBytes))
            .PrintLine();
    }

    const DecodeOptions& options;
    const Console console;
    std::optional<CaptureTime> start;
    std::size_t frame = 0;
    std::size_t packets = 0;
    std::size_t wrong = 0;
};

ExitCode RunDecode(const DecodeOptions& options) {
    const OutputOptions& output = options.samples.output;
    if (output.csv || output.wav || options.wantsSamples) return DecodeSamples(options.samples);
    const std::string& file = options.samples.file;
    if (!options.samples.devices.empty() || !output.folder.empty()) {
        return ReportError({ErrorKind::kInvalidArgument,
                            "--device and --out need --csv, --wav or --json --samples"});
    }
    auto reader = PcapngReader::Open(file);
    if (!reader) return ReportError(reader.error());
    Printer printer(options);
    std::map<std::uint32_t, std::unique_ptr<CaptureDecoder>> decoders;  // of each unit on the bus
    CaptureTime last{};
    while (const auto frame = reader->Next()) {
        if (std::ferror(stdout) != 0) return kExitDone;  // what this means is said at the end
        printer.Begin(frame->time);
        auto& decoder = decoders[frame->unit];
        if (!decoder) {
            decoder = std::make_unique<CaptureDecoder>(
                [&](const DecodedPacket& packet) { printer.Print(packet); });
        }
        decoder->Add(*frame);
        last = frame->time;
    }
    for (const auto& [unit, decoder] : decoders) decoder->Finish(last);
    if (reader->Fault().empty()) {
        printer.PrintSummary();
        return kExitDone;
    }
    return ReportError({ErrorKind::kInvalidArgument, file + ": " + reader->Fault()});
}

}  // namespace

Verb DecodeVerb() {
    const auto options = std::make_shared<DecodeOptions>();
    DecodeSamplesOptions& samples = options->samples;
    std::vector<Option> own = {
        {"FILE", "", "a recording, or a capture of the USB bus; - for standard input",
         &samples.file, true},
        {"--all-bytes", "", "every byte of each packet", &options->whole}};
    own = WithOutputOptions(samples.output, "a JSON object for each packet", std::move(own));
    const std::vector<Option> more = {
        {.name = "--samples",
         .placeholder = "",
         .help = "with --json: the samples, an object for each block, not the packets",
         .target = &options->wantsSamples,
         .needs = "--json"},
        {.name = "--wav",
         .placeholder = "",
         .help = "a WAV file for each channel, in the folder of --out (.)",
         .target = &samples.output.wav,
         .excludes = {"--csv", "--json"}},
        {"--device", "NAME", "samples of this device only (all)", &samples.devices},
    };
    own.insert(own.end(), more.begin(), more.end());
    return {
        .name = "decode",
        .summary = "Print a recording packet by packet, in words, or turn it into samples",
        .options = WithFormatOptions(samples.formats, std::move(own)),
        .notes =
            std::string(
                "Columns: number of the frame, seconds since the first, -> to the unit or <- from "
                "it, the\n"
                "packet in words, its bytes. --json: frame, time, direction, kind, child, "
                "checksum, text, bytes.\n") +
            kOutputNotes + kFormatNotes +
            "Examples: vexa-host decode session.pcapng | less\n"
            "          vexa-host decode session.pcapng --csv --out samples\n"
            "          vexa-host decode bus.pcapng --wav --device Microphone\n"
            "          vexa-host record - -- my-host-program | vexa-host decode -",
        .run = [options] { return RunDecode(*options); }};
}

}  // namespace vexahost::tool
