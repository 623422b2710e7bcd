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

FullScreen::FullScreen() : restoring(&FullScreen::Leave) {
    std::fflush(stdout);
    Enter();
    SetStopHandler(OnStopSignal);
}

FullScreen::~FullScreen() {
    Leave();
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

std::optional<char> FullScreen::NextKey() {
    constexpr int kSequenceMs = 20;  // within which the rest of an arrow key's sequence comes
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    char key = 0;
    const auto read1 = [&](int wait) {
        return keyboardChanged && poll(&entry, 1, wait) == 1 && read(STDIN_FILENO, &key, 1) == 1;
    };
    if (!read1(0)) return std::nullopt;
    if (key != '\033') return key;
    for (int rest = 0; rest < 2; ++rest) {
        if (!read1(kSequenceMs)) return '\033';
    }
    if (key == 'A') return 'k';
    if (key == 'B') return 'j';
    return '\033';
}

bool FullScreen::StopIfAsked() {
    if (!stopAsked.exchange(false)) return false;
    Leave();
    raise(SIGSTOP);
    Enter();
    return true;
}

std::int64_t Envelope::NumberOf(Clock::time_point time) {
    return std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()) / kSlot;
}

void Envelope::Add(double value, Clock::time_point now) {
    if (!std::isfinite(value)) return;
    const std::int64_t number = NumberOf(now);
    if (slots.empty() || slots.back().first < number) {
        if (slots.size() == kSlots) slots.pop_front();
        slots.push_back({number, {value, value}});
        return;
    }
    Slot& slot = slots.back().second;
    slot.lowest = std::min(slot.lowest, value);
    slot.highest = std::max(slot.highest, value);
}

const Envelope::Slot* Envelope::Find(std::int64_t number) const {
    const auto found =
        std::ranges::lower_bound(slots, number, {}, &std::pair<std::int64_t, Slot>::first);
    return found != slots.end() && found->first == number ? &found->second : nullptr;
}

std::optional<Envelope::Slot> Envelope::Range(std::size_t columns, Clock::time_point now) const {
    const std::int64_t first = NumberOf(now) - static_cast<std::int64_t>(columns) + 1;
    std::optional<Slot> range;
    for (const auto& [number, slot] : slots) {
        if (number < first) continue;
        if (!range) range = slot;
        range->lowest = std::min(range->lowest, slot.lowest);
        range->highest = std::max(range->highest, slot.highest);
    }
    return range;
}

// A slot is a bar from its lowest to its highest sample. With Unicode a character is two slots wide
// and four levels high (Braille dots), else one slot and one level.
std::vector<std::string> Envelope::Draw(std::size_t columns, std::size_t rows,
                                        Clock::time_point now, bool unicode) const {
    const std::size_t across = unicode ? 2 : 1;
    const std::size_t levels = rows * (unicode ? 4 : 1);
    const auto range = Range(columns * across, now);
    std::vector<std::vector<bool>> dots(levels, std::vector<bool>(columns * across));
    const auto levelOf = [&](double value) {
        const double whole = range->highest / 2 - range->lowest / 2;  // halved: it cannot overflow
        const double part = whole > 0 ? (value / 2 - range->lowest / 2) / whole : 0.5;
        return static_cast<std::size_t>(std::lround(part * static_cast<double>(levels - 1)));
    };
    const std::int64_t first = NumberOf(now) - static_cast<std::int64_t>(columns * across) + 1;
    for (std::size_t column = 0; range && column < columns * across; ++column) {
        const Slot* const slot = Find(first + static_cast<std::int64_t>(column));
        if (slot == nullptr) continue;
        const std::size_t top = levelOf(slot->highest);
        for (std::size_t level = levelOf(slot->lowest); level <= top; ++level) {
            dots[levels - 1 - level][column] = true;
        }
    }
    std::vector<std::string> lines(rows);
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t column = 0; column < columns; ++column) {
            if (!unicode) {
                lines[row] += dots[row][column] ? '|' : ' ';
                continue;
            }
            // The bits of a Braille character: 1 2 3 7 down its left side, 4 5 6 8 down its right.
            constexpr unsigned kBits[4][2] = {
                {0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
            unsigned bits = 0;
            for (std::size_t i = 0; i < 4; ++i) {
                for (std::size_t j = 0; j < 2; ++j) {
                    if (dots[row * 4 + i][column * 2 + j]) bits |= kBits[i][j];
                }
            }
            // U+2800 and up, as UTF-8.
            lines[row] += '\xE2';
            lines[row] += static_cast<char>(0xA0U + (bits >> 6U));
            lines[row] += static_cast<char>(0x80U + (bits & 0x3FU));
        }
    }
    return lines;
}

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
