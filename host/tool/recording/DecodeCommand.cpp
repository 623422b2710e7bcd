#include "DecodeCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Console.h"
#include "capture/Decoder.h"
#include "capture/PcapngReader.h"

namespace {

using vexahost::CaptureTime;
using vexahost::DecodedPacket;
using vexahost::Direction;
using vexahost::PacketKind;

constexpr std::size_t kBytesShown = 24;
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

// What is said of each packet, as text or as JSON.
class Printer {
  public:
    explicit Printer(const DecodeOptions& options_) : options(options_) {}

    // The packets that come next are of this frame, which is counted.
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
        std::fprintf(stderr,
                     "vexa-host: %zu frames, %zu packets and events, %zu of them not right\n",
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
                     vexahost::HexText(packet.bytes, options.whole ? kAllBytes : kBytesShown));
    }

    void PrintJson(const DecodedPacket& packet) const {
        nlohmann::ordered_json line;
        line["frame"] = frame;
        line["time"] = Seconds(packet.time);
        line["direction"] = DirectionName(packet.direction);
        line["kind"] = KindName(packet.kind);
        if (packet.child) line["child"] = *packet.child;
        line["checksum"] = packet.checksumRight ? "right" : "wrong";
        line["text"] = packet.text;
        line["bytes"] = vexahost::HexText(packet.bytes, kAllBytes);
        std::printf("%s\n",
                    line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    }

    const DecodeOptions& options;
    const Console console;
    std::optional<CaptureTime> start;
    std::size_t frame = 0;
    std::size_t packets = 0;
    std::size_t wrong = 0;
};

ExitCode RunDecode(const DecodeOptions& options) {
    const auto capture = vexahost::ReadWholeFile(options.file);
    if (!capture) return ReportError(capture.Failure());
    Printer printer(options);
    vexahost::CaptureDecoder decoder([&](const DecodedPacket& packet) { printer.Print(packet); });
    vexahost::PcapngReader reader(*capture);
    CaptureTime last{};
    while (const auto frame = reader.Next()) {
        printer.Begin(frame->time);
        decoder.Take(*frame);
        last = frame->time;
    }
    decoder.Finish(last);
    if (reader.Fault().empty()) {
        printer.PrintSummary();
        return kExitDone;
    }
    return ReportError(
        {vexahost::ErrorKind::kInvalidArgument, options.file + ": " + reader.Fault()});
}

}  // namespace

void AddDecodeCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command =
        program.add_subcommand("decode", "Say what is in a recording, packet by packet");
    const auto options = std::make_shared<DecodeOptions>();
    command->add_option("FILE", options->file, "a recording (pcapng)")->required();
    command->add_flag(
        "--json", options->json,
        "an object a line: frame, time, direction, kind, child, checksum, text, bytes");
    command->add_flag("--all-bytes", options->whole, "every byte of each packet");
    command->footer(
        "Columns: number of the frame, seconds since the first, -> to the unit or <- from it,\n"
        "the packet in words, its bytes.\n"
        "Example: vexa-host decode session.pcapng | less");
    OnChosen(*command, exitCode, [options] { return RunDecode(*options); });
}
