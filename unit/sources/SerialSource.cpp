#include "sources/SerialSource.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>

#include "model/Runtime.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

namespace {

struct Speed {
    std::uint32_t baud;
    speed_t code;
};

constexpr std::array kSpeeds = {
    Speed{50, B50},           Speed{75, B75},           Speed{110, B110},
    Speed{134, B134},         Speed{150, B150},         Speed{200, B200},
    Speed{300, B300},         Speed{600, B600},         Speed{1200, B1200},
    Speed{1800, B1800},       Speed{2400, B2400},       Speed{4800, B4800},
    Speed{9600, B9600},       Speed{19200, B19200},     Speed{38400, B38400},
    Speed{57600, B57600},     Speed{115200, B115200},   Speed{230400, B230400},
    Speed{460800, B460800},   Speed{500000, B500000},   Speed{576000, B576000},
    Speed{921600, B921600},   Speed{1000000, B1000000}, Speed{1152000, B1152000},
    Speed{1500000, B1500000}, Speed{2000000, B2000000}, Speed{2500000, B2500000},
    Speed{3000000, B3000000}, Speed{3500000, B3500000}, Speed{4000000, B4000000}};

// Cuts the bytes of a line into blocks.
class BlockCutter {
  public:
    BlockCutter(SourceLine& line_, const std::string& delimiter_)
        : line(line_), delimiter(delimiter_) {}

    [[nodiscard]] bool HasSome() const { return !block.empty(); }

    void Add(std::span<const std::uint8_t> bytes) {
        for (const std::uint8_t byte : bytes) {
            block.push_back(byte);
            if (block.size() == kMaxSourceBlock || EndsWithDelimiter()) Flush();
        }
    }

    void Flush() {
        if (!block.empty()) line.Pass(block);
        block.clear();
    }

  private:
    [[nodiscard]] bool EndsWithDelimiter() const {
        return !delimiter.empty() && block.size() >= delimiter.size() &&
               std::memcmp(block.data() + block.size() - delimiter.size(), delimiter.data(),
                           delimiter.size()) == 0;
    }

    SourceLine& line;
    const std::string& delimiter;
    std::vector<std::uint8_t> block;
};

class SerialSource final : public Source {
  public:
    explicit SerialSource(const SourceSettings& settings_) : settings(settings_) {}

    void Run(SourceLine& line) override {
        Open();
        BlockCutter cutter(line, settings.delimiter);
        while (!line.IsEnding()) {
            // What the line does not accept stays in the queue, which has a limit.
            const bool takes = pending.empty();
            if (takes) Take(line);
            Send();
            if (pending.empty() && !takes) continue;  // there may be more, already signalled
            const auto events = static_cast<short>(pending.empty() ? POLLIN : POLLIN | POLLOUT);
            const short happened = line.Wait(port.Get(), events, LeftOfPause(cutter));
            if ((happened & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0) {
                Receive(cutter);
                lastByte = Clock::now();
            } else if (LeftOfPause(cutter) == 0) {
                cutter.Flush();
            }
        }
    }

  private:
    void Open() {
        const std::string& path = settings.serial;
        port =
            testkit::Descriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        if (!port) throw SourceError(WhyNotOpened(path, errno));
        termios mode{};
        if (::tcgetattr(port.Get(), &mode) != 0) throw SourceError(path + " is not a serial line");
        ::cfmakeraw(&mode);
        mode.c_cflag |= CLOCAL | CREAD;
        mode.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD | CSTOPB | CRTSCTS);
        if (settings.parity != Parity::kNone) mode.c_cflag |= PARENB;
        if (settings.parity == Parity::kOdd) mode.c_cflag |= PARODD;
        if (settings.flow == FlowControl::kHardware) mode.c_cflag |= CRTSCTS;
        if (settings.flow == FlowControl::kSoftware) mode.c_iflag |= IXON | IXOFF;
        const auto speed = std::ranges::find(kSpeeds, settings.baud, &Speed::baud);
        ::cfsetspeed(&mode, speed->code);
        // What came before was read with other settings: it is dropped.
        if (::tcsetattr(port.Get(), TCSAFLUSH, &mode) != 0) Refuse(std::strerror(errno));
        termios now{};
        ::tcgetattr(port.Get(), &now);
        if (::cfgetospeed(&now) != speed->code) Refuse("not at this rate");
    }

    [[noreturn]] void Refuse(const std::string& why) {
        throw SourceError(settings.serial + " cannot be set to " + std::to_string(settings.baud) +
                          " baud: " + why);
    }

    // How long to wait, in ms, until the pause ends the block; -1: there is none to end.
    [[nodiscard]] int LeftOfPause(const BlockCutter& cutter) const {
        if (!cutter.HasSome()) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            lastByte + std::chrono::milliseconds(settings.gapMs) - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }

    void Take(SourceLine& line) {
        for (auto& bytes : line.TakeWrites()) {
            if (!bytes.empty()) pending.push_back(std::move(bytes));
        }
    }

    void Send() {
        while (!pending.empty()) {
            auto& bytes = pending.front();
            const ssize_t went = ::write(port.Get(), bytes.data(), bytes.size());
            if (went == 0 || (went < 0 && errno == EAGAIN)) return;
            if (went < 0 && errno != EINTR) throw SourceError(settings.serial + " has gone");
            if (went > 0) bytes.erase(bytes.begin(), bytes.begin() + went);
            if (bytes.empty()) pending.pop_front();
        }
    }

    void Receive(BlockCutter& cutter) {
        std::array<std::uint8_t, 4096> bytes;
        const ssize_t got = ::read(port.Get(), bytes.data(), bytes.size());
        if (got > 0) cutter.Add(std::span(bytes).first(static_cast<std::size_t>(got)));
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            cutter.Flush();
            throw SourceError(settings.serial + " has gone");
        }
    }

    const SourceSettings settings;
    testkit::Descriptor port;
    TimePoint lastByte;
    std::deque<std::vector<std::uint8_t>> pending;  // not yet sent
};

}  // namespace

bool IsBaudRate(std::uint32_t baud) {
    return std::ranges::find(kSpeeds, baud, &Speed::baud) != kSpeeds.end();
}

std::unique_ptr<Source> MakeSerialSource(const SourceSettings& settings) {
    return std::make_unique<SerialSource>(settings);
}

}  // namespace vexa::unit
