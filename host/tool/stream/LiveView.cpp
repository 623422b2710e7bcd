#include "tool/stream/LiveView.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tool/Exit.h"
#include "tool/Figures.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

constexpr std::chrono::milliseconds kViewRedraw{100};
constexpr std::chrono::milliseconds kViewRates{1000};
constexpr std::chrono::seconds kSilence{2};  // after which a sensor's silence is explained
constexpr std::size_t kViewBytesShown = 16;
constexpr std::size_t kRowsForAll = 2;    // rows of a graph; its two ends stand beside them
constexpr std::size_t kRowsWithRoom = 4;  // when all channels have room for that
constexpr std::size_t kHeadLines = 2;

// The formats of the columns, for heading and rows alike; the graph comes after them.
constexpr const char* kDeviceHeading = "%-14.14s %7s %5s ";
constexpr const char* kDeviceRow = "%-14.14s %7.1f %5llu ";
constexpr const char* kChannelHeading = "%-9.9s %8s %10s %10s ";
constexpr const char* kChannelRow = "%-9.9s %8.1f %10.5g %10.5g ";

template <typename... Values>
std::string Text(const char* format, Values... values) {
    char text[96];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

std::string Heading() {
    return Text(kDeviceHeading, "DEVICE", "BLOCK/S", "LOST") +
           Text(kChannelHeading, "CHANNEL", "SAMPLE/S", "LAST", "RANGE");
}

}  // namespace

LiveView::LiveView(std::string unit, const std::vector<std::string>& names, Losses lossesOf)
    : where(std::move(unit)), losses(std::move(lossesOf)) {
    for (const std::string& name : names) devices.push_back({name, 0, 0, "", {}});
}

void LiveView::Add(const StreamedBlock& from) {
    DeviceRows& device = devices.at(from.device);
    ++device.blocks;
    if (from.samples == nullptr) {
        device.bytes = HexText(from.block.bytes, kViewBytesShown);
        return;
    }
    for (std::size_t i = 0; i < from.samples->values.size(); ++i) {
        AddChannel(device, from.format->channels[i], from.samples->values[i]);
    }
}

void LiveView::AddChannel(DeviceRows& device, const ChannelFormat& channel,
                          const std::vector<double>& values) {
    const std::string name =
        channel.unit.empty() ? channel.name : channel.name + ' ' + channel.unit;
    auto row = std::ranges::find(device.channels, name, &ChannelRow::name);
    if (row == device.channels.end()) {
        device.channels.emplace_back().name = name;
        row = device.channels.end() - 1;
    }
    row->samples += values.size();
    row->last = values.back();
    if (pausedAt) return;
    const auto now = Clock::now();
    for (const double value : values) row->envelope.Add(value, now);
}

Expected<Done> LiveView::Update() {
    const auto now = Clock::now();
    bool isKeyTyped = false;
    while (const auto key = screen.NextKey()) {
        OnKey(*key);
        isKeyTyped = true;
    }
    if (now - ratesAt >= kViewRates) UpdateRates(now);
    if (screen.StopIfAsked() || isKeyTyped || now - drawnAt >= kViewRedraw) Draw(now);
    return Done{};
}

void LiveView::OnKey(char key) {
    switch (key) {
        case 'q':
        case 'Q':
            quit = true;
            break;
        case 'p':
        case ' ':
            pausedAt = pausedAt ? std::nullopt : std::optional(Clock::now());
            break;
        case 'j':
            ++scrolled;
            break;
        case 'k':
            if (scrolled > 0) --scrolled;
            break;
        default:
            break;
    }
}

bool LiveView::WantsEnd() { return quit; }

void LiveView::UpdateRates(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - ratesAt).count();
    for (DeviceRows& device : devices) {
        device.blocksPerSecond = static_cast<double>(device.blocks) / seconds;
        device.blocks = 0;
        for (ChannelRow& channel : device.channels) {
            channel.samplesPerSecond = static_cast<double>(channel.samples) / seconds;
            channel.samples = 0;
        }
    }
    ratesAt = now;
}

std::size_t LiveView::GraphColumns() const {
    const std::size_t before = Heading().size();
    const std::size_t width = console.Width();
    return width > before ? width - before : 0;
}

void LiveView::Draw(Clock::time_point now) {
    drawnAt = now;
    const std::size_t height = screen.Height();
    graphRows = kRowsWithRoom;
    auto body = Lines(now);
    if (body.size() + kHeadLines > height) {
        graphRows = kRowsForAll;
        body = Lines(now);
    }
    const std::size_t slots = GraphColumns() * (console.HasUnicode() ? 2 : 1);
    const std::string axis =
        Text("LOW TO HIGH PER 0.1 S, %.0f S",
             static_cast<double>(slots) * std::chrono::duration<double>(Envelope::kSlot).count());
    std::vector<std::string> lines = {console.Styled(Style::kBold, Title(now)),
                                      console.Styled(Style::kDim, Fit(Heading() + axis))};
    const std::size_t room = height > kHeadLines + 1 ? height - kHeadLines : 1;
    if (body.size() <= room) {
        scrolled = 0;
        lines.insert(lines.end(), body.begin(), body.end());
    } else {
        const std::size_t shown = room - 1;
        scrolled = std::min(scrolled, body.size() - shown);
        const auto first = body.begin() + static_cast<std::ptrdiff_t>(scrolled);
        lines.insert(lines.end(), first, first + static_cast<std::ptrdiff_t>(shown));
        lines.push_back(
            console.Styled(Style::kDim, Fit(Text("lines %zu to %zu of %zu; arrow keys scroll",
                                                 scrolled + 1, scrolled + shown, body.size()))));
    }
    lines.resize(std::min(lines.size(), height));
    screen.Draw(lines);
}

std::vector<std::string> LiveView::Lines(Clock::time_point now) const {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const DeviceRows& device = devices[i];
        const std::string text = DeviceText(device, i);
        if (device.channels.empty()) {
            std::string words = device.bytes.empty() ? "nothing yet" : device.bytes;
            if (device.bytes.empty() && now - start >= kSilence) {
                words += "; a HID sensor reports only when armed: --arm " + device.name;
            }
            lines.push_back(Fit(text + words));
        }
        bool isFirst = true;
        for (const ChannelRow& channel : device.channels) {
            for (const std::string& line : ChannelLines(channel, now)) {
                // Only the first line of all shows the device.
                lines.push_back((isFirst ? text : std::string(text.size(), ' ')) + line);
                isFirst = false;
            }
        }
    }
    return lines;
}

std::string LiveView::Title(Clock::time_point now) const {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(now - start).count();
    return Fit("vexa-host stream   " + where +
               Text("   %lld:%02lld   %s", static_cast<long long>(seconds / 60),
                    static_cast<long long>(seconds % 60),
                    pausedAt ? "PAUSED, p goes on" : "p pauses, q or Ctrl-C ends"));
}

std::string LiveView::DeviceText(const DeviceRows& device, std::size_t index) const {
    const auto lost = losses(index);
    const unsigned long long blocks = lost.sequenceGaps + lost.dropped;
    return Text(kDeviceRow, device.name.c_str(), device.blocksPerSecond, blocks);
}

// The highest value of the graph stands beside its first row, the lowest beside its last.
std::vector<std::string> LiveView::ChannelLines(const ChannelRow& channel,
                                                Clock::time_point now) const {
    const std::size_t columns = GraphColumns();
    const auto at = pausedAt.value_or(now);
    auto lines = channel.envelope.Draw(columns, graphRows, at, console.HasUnicode());
    const auto range = channel.envelope.Range(columns * (console.HasUnicode() ? 2 : 1), at)
                           .value_or(Envelope::Slot{channel.last, channel.last});
    const std::string first = Text(kChannelRow, channel.name.c_str(), channel.samplesPerSecond,
                                   channel.last, range.highest);
    const std::string axis =
        Text("%*s%10.5g ", static_cast<int>(first.size()) - 11, "", range.lowest);
    for (std::size_t row = 0; row < lines.size(); ++row) {
        const std::string before = row == 0                  ? first
                                   : row + 1 == lines.size() ? axis
                                                             : std::string(first.size(), ' ');
        lines[row].insert(0, columns > 0 ? before : Fit(before));
    }
    return lines;
}

std::string LiveView::Fit(const std::string& text) const { return text.substr(0, console.Width()); }

}  // namespace vexahost::tool
