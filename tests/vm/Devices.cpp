// Devices for the cases in the booted kernel, and a host that opens them.
//
//   vm-devices pad SIZE MS PRODUCT
//       a HID device of the kernel (uhid) with reports of SIZE bytes, one every MS milliseconds;
//       answers an init request, sends other reports back
//   vm-devices motion MS
//       a HID sensor hub with an accelerometer and a sample every MS milliseconds: X counts up, and
//       its own time goes on by MS
//   vm-devices lines LINK MS
//       a serial instrument at LINK: a numbered sentence every MS milliseconds
//   vm-devices blocks SECONDS [--daq] NAME[=HEX]...
//       opens devices over USB, writes HEX to them, and prints what comes until the time is over
//       or SIGTERM comes; then a summary
#include <fcntl.h>
#include <linux/uhid.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "vexahost/Client.h"
#include "vexahost/UsbTransport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

volatile sig_atomic_t isEnding = 0;

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "vm-devices: %s (errno %d, %s)\n", what.c_str(), errno,
                 std::strerror(errno));
    std::exit(1);
}

std::string Hex(const std::uint8_t* bytes, std::size_t size) {
    std::string text;
    char digits[4];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

// Calls `tick` at its times and `receive` when `descriptor` can be read, until the end.
void Loop(int descriptor, std::chrono::milliseconds period, const std::function<void()>& tick,
          const std::function<void()>& receive) {
    auto next = Clock::now() + period;
    while (isEnding == 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        pollfd entry{descriptor, POLLIN, 0};
        const int timeout = period == 0ms ? -1 : std::max(0, static_cast<int>(left.count()));
        if (poll(&entry, 1, timeout) > 0) receive();
        if (period == 0ms || Clock::now() < next) continue;
        tick();
        next += period;
        if (next < Clock::now() - 1s) next = Clock::now();  // it was stopped for a while
    }
}

// --- HID devices of the kernel ---

class HidDevice {
  public:
    HidDevice(const char* name, std::uint32_t product, const Bytes& descriptor) {
        device = open("/dev/uhid", O_RDWR);
        if (device < 0) Fail("cannot open /dev/uhid");
        uhid_event event{};
        event.type = UHID_CREATE2;
        auto& create = event.u.create2;
        std::snprintf(reinterpret_cast<char*>(create.name), sizeof create.name, "%s", name);
        create.bus = 3;
        create.vendor = 0x1209;
        create.product = product;
        create.rd_size = static_cast<std::uint16_t>(descriptor.size());
        std::memcpy(create.rd_data, descriptor.data(), descriptor.size());
        Write(event);
    }
    [[nodiscard]] int Descriptor() const { return device; }

    void Send(const Bytes& report) {
        uhid_event event{};
        event.type = UHID_INPUT2;
        event.u.input2.size = static_cast<std::uint16_t>(report.size());
        std::memcpy(event.u.input2.data, report.data(), report.size());
        Write(event);
    }
    uhid_event Receive() {
        uhid_event event{};
        if (read(device, &event, sizeof event) < 0) Fail("cannot read /dev/uhid");
        return event;
    }
    void Write(const uhid_event& event) {
        if (write(device, &event, sizeof event) < 0) Fail("cannot write /dev/uhid");
    }

  private:
    int device;
};

void Pad(std::uint8_t size, std::chrono::milliseconds period, std::uint32_t product) {
    HidDevice pad("Pad", product, {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x15, 0x00,
                                   0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, size, 0x09, 0x01,
                                   0x81, 0x02, 0x95, size, 0x09, 0x01, 0x91, 0x02, 0xC0});
    std::uint32_t count = 0;
    const auto tick = [&] {
        Bytes report(size);
        report[0] = static_cast<std::uint8_t>(count & 0x3FU);
        for (std::size_t i = 0; i < 4; ++i) {
            report[4 + i] = static_cast<std::uint8_t>(count >> (8 * i));
        }
        ++count;
        pad.Send(report);
    };
    Loop(pad.Descriptor(), period, tick, [&] {
        const uhid_event event = pad.Receive();
        if (event.type != UHID_OUTPUT || event.u.output.size < 2) return;
        // The report's number, 0, comes first.
        const auto* const data = event.u.output.data;
        std::printf("output %s\n", Hex(data, event.u.output.size).c_str());
        Bytes answer(data + 1, data + event.u.output.size);
        answer.resize(size);
        if ((answer[0] & 0xC0U) == 0x40) answer[0] = 0x80;
        pad.Send(answer);
    });
}

// A sensor hub with one accelerometer. Report 1: as a feature the two states, the interval and the
// sensitivity; as an input three axes and the sensor's own time.
void Motion(std::chrono::milliseconds period) {
    constexpr std::uint8_t kId = 1;
    Bytes descriptor{0x05, 0x20, 0x09, 0x73, 0xA1, 0x00, 0x85, kId};
    const auto selector = [&](std::uint8_t property, std::uint8_t first, int count) {
        for (const std::uint8_t byte : {std::uint8_t{0x0A}, property, std::uint8_t{0x03}})
            descriptor.push_back(byte);
        for (const int byte : {0x15, 0x00, 0x25, count - 1, 0x75, 0x08, 0x95, 0x01, 0xA1, 0x02})
            descriptor.push_back(static_cast<std::uint8_t>(byte));
        for (int i = 0; i < count; ++i)
            for (const int byte : {0x0A, first + i, 0x08})
                descriptor.push_back(static_cast<std::uint8_t>(byte));
        for (const int byte : {0xB1, 0x00, 0xC0})
            descriptor.push_back(static_cast<std::uint8_t>(byte));
    };
    selector(0x16, 0x40, 6);  // reporting state
    selector(0x19, 0x50, 6);  // power state
    for (const int byte : {0x0A, 0x0E, 0x03, 0x15, 0x00, 0x27, 0xFF, 0xFF, 0xFF,
                           0x7F, 0x75, 0x20, 0x95, 0x01, 0x55, 0x00, 0xB1, 0x02,  // interval in ms
                           0x0A, 0x0F, 0x03, 0x15, 0x00, 0x26, 0xFF, 0x7F, 0x75,
                           0x10, 0x95, 0x01, 0x55, 0x0E, 0xB1, 0x02}) {  // sensitivity
        descriptor.push_back(static_cast<std::uint8_t>(byte));
    }
    for (const int axis : {0x53, 0x54, 0x55}) {
        for (const int byte : {0x0A, axis, 0x04, 0x16, 0x01, 0x80, 0x26, 0xFF, 0x7F, 0x75, 0x10,
                               0x95, 0x01, 0x55, 0x0D, 0x81, 0x02})
            descriptor.push_back(static_cast<std::uint8_t>(byte));
    }
    // 64 bits, in units of 10 to the power of -3 s.
    for (const int byte : {0x0B, 0x29, 0x05, 0x20, 0x00, 0x15, 0x00, 0x27, 0xFF, 0xFF,
                           0xFF, 0x7F, 0x75, 0x40, 0x95, 0x01, 0x55, 0x0D, 0x81, 0x02})
        descriptor.push_back(static_cast<std::uint8_t>(byte));
    descriptor.push_back(0xC0);
    HidDevice hub("Hub", 0x0020, descriptor);
    Bytes feature{kId, 1, 1, 10, 0, 0, 0, 0, 0};
    std::uint32_t count = 0;
    const auto tick = [&] {
        const auto low = [](int value) { return static_cast<std::uint8_t>(value); };
        const int x = static_cast<int>(count % 30000);
        Bytes report{kId, low(x), low(x >> 8), low(-x), low(-x >> 8), low(1000), low(1000 >> 8)};
        const auto ms = static_cast<std::uint64_t>(period.count()) * ++count;
        for (unsigned bit = 0; bit < 64; bit += 8)
            report.push_back(low(static_cast<int>(ms >> bit)));
        hub.Send(report);
    };
    Loop(hub.Descriptor(), period, tick, [&] {
        const uhid_event event = hub.Receive();
        uhid_event reply{};
        if (event.type == UHID_GET_REPORT) {
            reply.type = UHID_GET_REPORT_REPLY;
            reply.u.get_report_reply.id = event.u.get_report.id;
            reply.u.get_report_reply.size = static_cast<std::uint16_t>(feature.size());
            std::memcpy(reply.u.get_report_reply.data, feature.data(), feature.size());
        } else if (event.type == UHID_SET_REPORT) {
            const std::size_t size = std::min<std::size_t>(event.u.set_report.size, feature.size());
            feature.assign(event.u.set_report.data, event.u.set_report.data + size);
            feature.resize(9);
            std::printf("feature %s\n", Hex(feature.data(), feature.size()).c_str());
            reply.type = UHID_SET_REPORT_REPLY;
            reply.u.set_report_reply.id = event.u.set_report.id;
        } else {
            return;
        }
        hub.Write(reply);
    });
}

// --- a serial instrument ---

void Lines(const char* link, std::chrono::milliseconds period) {
    const int line = posix_openpt(O_RDWR | O_NOCTTY);
    if (line < 0 || grantpt(line) != 0 || unlockpt(line) != 0) Fail("no pseudo terminal");
    const int held = open(ptsname(line), O_RDWR | O_NOCTTY);  // so that its end is no hang-up
    termios mode{};
    tcgetattr(held, &mode);
    cfmakeraw(&mode);
    tcsetattr(held, TCSANOW, &mode);
    unlink(link);
    if (symlink(ptsname(line), link) != 0) Fail("no link to the line");
    unsigned count = 0;
    speed_t speed = 0;
    const auto tick = [&] {
        char text[64];
        const int size = std::snprintf(text, sizeof text, "$GPTST,%u,K*5A\r\n", count++);
        tcgetattr(line, &mode);
        if (speed != cfgetospeed(&mode)) {
            speed = cfgetospeed(&mode);
            std::printf("speed %o\n", speed);
        }
        // In two pieces, as a slow line delivers it.
        if (write(line, text, 5) != 5) return;
        usleep(2000);
        if (write(line, text + 5, static_cast<std::size_t>(size) - 5) < 0) return;
    };
    Loop(line, period, tick, [&] {
        char text[256];
        const ssize_t got = read(line, text, sizeof text);
        if (got > 0) std::printf("got %.*s\n", static_cast<int>(got), text);
    });
    unlink(link);
}

// --- the host ---

void Print(const std::string& name, const Bytes& bytes) {
    if (bytes.size() >= 10 && bytes[0] == 0xA0 && bytes[1] == bytes.size()) {
        std::uint32_t ms = 0;
        std::memcpy(&ms, &bytes[4], sizeof ms);
        std::string text;
        for (std::size_t i = 8; i + 1 < bytes.size(); i += 2) {
            std::int16_t value = 0;
            std::memcpy(&value, &bytes[i], sizeof value);
            text += " " + std::to_string(value);
        }
        std::printf("%s %u %u:%s\n", name.c_str(), bytes[2], ms, text.c_str());
        return;
    }
    if (bytes.back() == '\n') {
        std::printf("%s text %.*s", name.c_str(), static_cast<int>(bytes.size()),
                    reinterpret_cast<const char*>(bytes.data()));
        return;
    }
    std::printf("%s hex %s\n", name.c_str(), Hex(bytes.data(), bytes.size()).c_str());
}

void Blocks(std::chrono::seconds duration, bool withDaq, const std::vector<std::string>& words) {
    auto connected = vexahost::Client::Connect(
        [](const vexahost::ConnectLimits&) { return vexahost::UsbTransport::Connect(); }, {}, 20s);
    if (!connected) Fail(connected.error().message);
    vexahost::Client& client = **connected;
    if (!client.OpenController(0x10, withDaq, 20s)) Fail("the controller cannot be opened");
    std::vector<vexahost::ChildId> ids;
    std::map<vexahost::ChildId, std::string> names;
    for (const auto& word : words) {
        const auto sign = word.find('=');
        const vexahost::ChildId id = 0x20 + static_cast<vexahost::ChildId>(ids.size());
        const auto opened = client.OpenDevice(word.substr(0, sign), id, 20s);
        if (!opened) Fail(word + ": " + opened.error().message);
        ids.push_back(id);
        names[id] = word.substr(0, sign);
        if (sign == std::string::npos) continue;
        Bytes bytes;
        for (std::size_t at = sign + 1; at + 1 < word.size(); at += 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(word.substr(at, 2), nullptr, 16)));
        }
        if (!client.Send(id, bytes, 5s)) Fail(word + ": cannot write");
    }
    if (withDaq) {
        const auto taken = client.TakeDaqOver(20s);
        if (!taken) Fail("take-over: " + taken.error().message);
    }
    std::puts("host is ready");
    for (const auto end = Clock::now() + duration; isEnding == 0 && Clock::now() < end;) {
        const auto received = client.ReceiveAny(ids, withDaq, 100ms);
        if (received) {
            Print(received->child ? names[*received->child] : "daq", received->block.bytes);
        } else if (received.error().kind != vexahost::ErrorKind::kTimeout) {
            Fail(received.error().message);
        }
    }
    for (const auto id : ids) {
        const auto counts = client.StatisticsOf(id);
        if (!counts) continue;
        std::printf("summary %s %llu blocks %llu gaps %llu dropped\n", names[id].c_str(),
                    static_cast<unsigned long long>(counts->blocks),
                    static_cast<unsigned long long>(counts->sequenceGaps),
                    static_cast<unsigned long long>(counts->dropped));
    }
    if (!client.CloseController(20s)) Fail("the controller cannot be closed");
}

}  // namespace

int main(int count, char** words) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction action {};
    action.sa_handler = [](int) { isEnding = 1; };
    sigaction(SIGTERM, &action, nullptr);
    const std::string verb = count > 1 ? words[1] : "";
    const auto number = [&](int index) {
        return index < count ? static_cast<unsigned>(std::strtoul(words[index], nullptr, 0)) : 0U;
    };
    if (verb == "pad") {
        Pad(static_cast<std::uint8_t>(number(2)), std::chrono::milliseconds(number(3)), number(4));
    } else if (verb == "motion") {
        Motion(std::chrono::milliseconds(number(2)));
    } else if (verb == "lines" && count > 3) {
        Lines(words[2], std::chrono::milliseconds(number(3)));
    } else if (verb == "blocks" && count > 2) {
        const bool daq = count > 3 && std::strcmp(words[3], "--daq") == 0;
        Blocks(std::chrono::seconds(number(2)), daq, {words + (daq ? 4 : 3), words + count});
    } else {
        Fail("no such verb: " + verb);
    }
}
