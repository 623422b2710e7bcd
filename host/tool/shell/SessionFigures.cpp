// The shell's commands about figures.
#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <functional>
#include <map>

#include "../Number.h"
#include "Session.h"

using vexahost::ChildId;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    return std::max(time.count(), 0.001);
}

std::string Line(const char* name, ChildId id, const vexahost::ChildStatistics& counts,
                 double seconds) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "%-14.40s 0x%-5X %8" PRIu64 " blocks %10" PRIu64 " bytes %8.1f/s %5" PRIu64
                  " gaps %5" PRIu64 " dropped\n",
                  name, id, counts.blocks, counts.bytes,
                  static_cast<double>(counts.blocks) / seconds, counts.sequenceGaps,
                  counts.dropped);
    return text;
}

}  // namespace

Outcome Session::Stats(const Words& /*arguments*/) {
    std::string text;
    for (const Device& device : devices) {
        const auto counts = client->StatisticsOf(device.id);
        if (!counts) continue;
        text += Line(device.name.c_str(), device.id, *counts, SecondsSince(device.opened));
    }
    const auto daq = collector.Daq();
    const auto all = client->Statistics();
    char rest[300];
    std::snprintf(rest, sizeof rest,
                  "DAQ            %" PRIu64 " packets, %" PRIu64 " with a wrong checksum, %" PRIu64
                  " dropped\nlink           %" PRIu64 " packets, %" PRIu64 " damaged, %" PRIu64
                  " stray replies, %" PRIu64 " stray packets",
                  daq.packets, daq.wrongChecksums, all.daqDropped, all.packets, all.wrongChecksums,
                  all.strayReplies, all.strayPackets);
    return Outcome::Good(text + rest);
}

std::optional<double> Session::DaqFigure(const std::string& figure) const {
    const auto counts = collector.Daq();
    const auto packets = static_cast<double>(counts.packets);
    if (figure == "packets") return packets;
    if (figure == "rate") return packets / SecondsSince(daqOpened);
    if (figure == "badsums") return static_cast<double>(counts.wrongChecksums);
    if (figure == "dropped") return static_cast<double>(client->Statistics().daqDropped);
    return std::nullopt;
}

std::optional<double> Session::Figure(const std::string& device, const std::string& figure) const {
    if (device == "daq") return DaqFigure(figure);
    const auto id = FindId(device);
    const auto counts = id ? client->StatisticsOf(*id) : std::nullopt;
    const auto entry =
        std::ranges::find_if(devices, [&](const Device& open) { return open.id == id; });
    if (!counts || entry == devices.end()) return std::nullopt;
    if (figure == "blocks") return static_cast<double>(counts->blocks);
    if (figure == "bytes") return static_cast<double>(counts->bytes);
    if (figure == "rate") return static_cast<double>(counts->blocks) / SecondsSince(entry->opened);
    if (figure == "gaps") return static_cast<double>(counts->sequenceGaps);
    if (figure == "dropped") return static_cast<double>(counts->dropped);
    return std::nullopt;
}

Outcome Session::Check(const Words& arguments) {
    static const std::map<std::string, std::function<bool(double, double)>> operators = {
        {"<", std::less<>{}},           {"<=", std::less_equal<>{}}, {"=", std::equal_to<>{}},
        {">=", std::greater_equal<>{}}, {">", std::greater<>{}},
    };
    const auto compare = operators.find(arguments[2]);
    const auto wanted = ParseNumber<long>(arguments[3]);
    if (compare == operators.end() || !wanted) {
        return Outcome::Wrong("usage: check ID|NAME|daq FIGURE <|<=|=|>=|> N, a whole number");
    }
    const auto figure = Figure(arguments[0], arguments[1]);
    if (!figure) {
        return Outcome::Wrong(arguments[0] + " is not open, or has no figure \"" + arguments[1] +
                              "\"");
    }
    char text[64];
    std::snprintf(text, sizeof text, " is %.10g", std::round(*figure * 10) / 10);
    const std::string said = arguments[0] + " " + arguments[1] + text;
    if (compare->second(*figure, static_cast<double>(*wanted))) return Outcome::Good(said);
    return Outcome::Unmet(said + ", not " + arguments[2] + " " + arguments[3]);
}
