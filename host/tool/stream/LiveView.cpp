#include "tool/stream/LiveView.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "tool/Exit.h"
#include "tool/Figures.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

// The alternate screen, without a cursor and without lines that wrap.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";

std::atomic<bool> stopAsked{false};
std::atomic<bool> keyboardChanged{false};
termios keyboard;  // former settings; read by a signal handler once keyboardChanged is set

void OnStopSignal(int) { stopAsked = true; }

void SetStopHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTSTP, &action, nullptr);
}

void WriteAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

FullScreen::FullScreen() {
    std::fflush(stdout);
    OnSecondInterrupt(&FullScreen::Leave);
    Enter();
    SetStopHandler(OnStopSignal);
}

FullScreen::~FullScreen() {
    Leave();
    OnSecondInterrupt(nullptr);
    SetStopHandler(SIG_DFL);
}

// Keys arrive one by one and are not echoed; those that send signals go on doing so.
void FullScreen::Enter() {
    if (tcgetattr(STDIN_FILENO, &keyboard) == 0) {
        termios keys = keyboard;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keyboardChanged = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
    }
    WriteAll(kEnter);
}

// Also called by a signal handler.
void FullScreen::Leave() {
    WriteAll(kLeave);
    if (keyboardChanged.exchange(false)) tcsetattr(STDIN_FILENO, TCSANOW, &keyboard);
}

std::size_t FullScreen::Height() const {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return 24;
    return size.ws_row;
}

// One write, and each line is cleared only after its text: nothing flickers.
void FullScreen::Draw(const std::vector<std::string>& lines) {
    std::string page = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        page += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
    }
    WriteAll(page + "\033[J");
}

bool FullScreen::IsQuitTyped() {
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    while (keyboardChanged && !quit && poll(&entry, 1, 0) == 1) {
        char key = 0;
        if (read(STDIN_FILENO, &key, 1) != 1) break;
        quit = key == 'q' || key == 'Q';
    }
    return quit;
}

bool FullScreen::StopIfAsked() {
    if (!stopAsked.exchange(false)) return false;
    Leave();
    raise(SIGSTOP);
    Enter();
    return true;
}

namespace {

constexpr std::chrono::milliseconds kViewRedraw{100};
constexpr std::chrono::milliseconds kViewRates{1000};
constexpr std::size_t kGraphSamples = 500;  // more than a terminal is wide
constexpr std::size_t kViewBytesShown = 16;
constexpr std::size_t kExtremesFrom = 110;  // columns that leave room for the extremes

// The formats of the columns, for heading and rows alike; the graph comes after them.
constexpr const char* kDeviceHeading = "%-14.14s %7s %5s ";
constexpr const char* kDeviceRow = "%-14.14s %7.1f %5llu ";
constexpr const char* kChannelHeading = "%-9.9s %8s %10s  ";
constexpr const char* kChannelRow = "%-9.9s %8.1f %10.5g  ";
constexpr const char* kExtremesHeading = "%10s %10s  ";
constexpr const char* kExtremesRow = "%10.5g %10.5g  ";

template <typename... Values>
std::string Text(const char* format, Values... values) {
    char text[96];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

}  // namespace

LiveView::LiveView(std::string unit, const std::vector<std::string>& names, Losses lossesOf)
    : where(std::move(unit)), losses(std::move(lossesOf)) {
    for (const std::string& name : names) devices.push_back({name, 0, 0, "", {}});
}

void LiveView::Add(const StreamedBlock& from) {
    DeviceRows& device = devices.at(from.device);
    ++device.blocks;
    if (!from.reading) {
        device.bytes = HexText(from.block.bytes, kViewBytesShown);
        return;
    }
    for (const Channel& channel : from.reading->channels) AddChannel(device, channel);
}

void LiveView::AddChannel(DeviceRows& device, const Channel& channel) {
    auto row = std::ranges::find(device.channels, channel.name, &ChannelRow::name);
    if (row == device.channels.end()) {
        const double first = channel.values.front();
        device.channels.push_back({channel.name, 0, 0, first, first, {}});
        row = device.channels.end() - 1;
    }
    row->samples += channel.values.size();
    for (const double value : channel.values) {
        row->lowest = std::fmin(row->lowest, value);
        row->highest = std::fmax(row->highest, value);
        if (row->graph.size() == kGraphSamples) row->graph.pop_front();
        row->graph.push_back(value);
    }
}

void LiveView::Update() {
    const auto now = Clock::now();
    if (now - ratesAt >= kViewRates) UpdateRates(now);
    if (screen.StopIfAsked() || now - drawnAt >= kViewRedraw) Draw(now);
}

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

void LiveView::Draw(Clock::time_point now) {
    drawnAt = now;
    auto lines = Lines(now);
    const std::size_t height = screen.Height();
    if (lines.size() > height) {
        const std::string more = std::to_string(lines.size() - height + 1) + " more lines";
        lines.resize(height);
        lines.back() = console.Styled(Style::kDim, Fit(more));
    }
    screen.Draw(lines);
}

std::vector<std::string> LiveView::Lines(Clock::time_point now) const {
    const std::size_t width = console.Width();
    const bool hasExtremes = width >= kExtremesFrom;
    std::string heading = Text(kDeviceHeading, "DEVICE", "BLOCK/S", "LOST") +
                          Text(kChannelHeading, "CHANNEL", "SAMPLE/S", "LAST");
    if (hasExtremes) heading += Text(kExtremesHeading, "LOWEST", "HIGHEST");
    const std::size_t graphWidth = width > heading.size() ? width - heading.size() : 0;

    std::vector<std::string> lines = {console.Styled(Style::kBold, Title(now)),
                                      console.Styled(Style::kDim, Fit(heading))};
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const DeviceRows& device = devices[i];
        std::string text = DeviceText(device, i);
        if (device.channels.empty()) {
            lines.push_back(Fit(text + (device.bytes.empty() ? "nothing yet" : device.bytes)));
        }
        for (const ChannelRow& channel : device.channels) {
            lines.push_back(Fit(text + ChannelText(channel, hasExtremes)) +
                            SparkLine(channel.graph, graphWidth, console.HasUnicode()));
            text.assign(text.size(), ' ');  // only the first channel shows its device
        }
    }
    return lines;
}

std::string LiveView::Title(Clock::time_point now) const {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(now - start).count();
    return Fit("vexa-host stream   " + where +
               Text("   %lld:%02lld   q or Ctrl-C ends", static_cast<long long>(seconds / 60),
                    static_cast<long long>(seconds % 60)));
}

std::string LiveView::DeviceText(const DeviceRows& device, std::size_t index) const {
    const auto lost = losses(index);
    const unsigned long long blocks = lost.sequenceGaps + lost.dropped;
    return Text(kDeviceRow, device.name.c_str(), device.blocksPerSecond, blocks);
}

std::string LiveView::ChannelText(const ChannelRow& channel, bool withExtremes) const {
    std::string text =
        Text(kChannelRow, channel.name.c_str(), channel.samplesPerSecond, channel.graph.back());
    if (withExtremes) text += Text(kExtremesRow, channel.lowest, channel.highest);
    return text;
}

std::string LiveView::Fit(const std::string& text) const { return text.substr(0, console.Width()); }

}  // namespace vexahost::tool
