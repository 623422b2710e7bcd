#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "tool/Console.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kDecodedBytesShown = 24;
constexpr std::size_t kAllBytes = 0xFFFF;

struct DecodeOptions {
    std::string file;
    bool json = false;
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
        if (options.json) {
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
    auto reader = PcapngReader::Open(options.file);
    if (!reader) return ReportError(reader.error());
    Printer printer(options);
    CaptureDecoder decoder([&](const DecodedPacket& packet) { printer.Print(packet); });
    CaptureTime last{};
    while (const auto frame = reader->Next()) {
        if (std::ferror(stdout) != 0) return kExitDone;  // what this means is said at the end
        printer.Begin(frame->time);
        decoder.Add(*frame);
        last = frame->time;
    }
    decoder.Finish(last);
    if (reader->Fault().empty()) {
        printer.PrintSummary();
        return kExitDone;
    }
    return ReportError({ErrorKind::kInvalidArgument, options.file + ": " + reader->Fault()});
}

}  // namespace

Verb DecodeVerb() {
    const auto options = std::make_shared<DecodeOptions>();
    return {
        .name = "decode",
        .summary = "Print a recording packet by packet, in words",
        .options =
            {{"FILE", "", "a recording (pcapng); - for standard input", &options->file, true},
             {"--json", "",
              "a JSON object for each packet: frame, time, direction, kind, child, checksum, "
              "text, bytes",
              &options->json},
             {"--all-bytes", "", "every byte of each packet", &options->whole}},
        .notes =
            "Columns: number of the frame, seconds since the first, -> to the unit or <- from it,\n"
            "the packet in words, its bytes.\n"
            "Examples: vexa-host decode session.pcapng | less\n"
            "          vexa-host record - -- my-host-program | vexa-host decode -",
        .run = [options] { return RunDecode(*options); }};
}

}  // namespace vexahost::tool
