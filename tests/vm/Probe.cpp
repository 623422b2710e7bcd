// What the cases in the booted kernel need at both ends of the link and the tools do not do: the
// node call by call, and bytes of any size over the bus.
//   vm-probe calls              the node's calls: status, odd requests, a second opener
//   vm-probe interrupt          signals end a waiting read and a waiting write
//   vm-probe echo               writes what it reads from the node, until killed
//   vm-probe send BYTES         sends random payloads over the bus and checks the echo
//   vm-probe pour BYTES         writes to the node once something was read from it
//   vm-probe drain BYTES        reads from the node
//   vm-probe pull BYTES         the host's end of pour: asks for the bytes and takes them
//   vm-probe push BYTES         the host's end of drain
//   vm-probe sizes PACKET       the same with sizes around whole packets of PACKET bytes
//   vm-probe windows DEVICE      asks for the descriptors by which Windows loads WinUSB, as it does
//   vm-probe cycles N FILE OUT IN  streams; pulls the cable by writing OUT to FILE, plugs it in by
//   IN vm-probe capture FILE       what passes on bus 1, as a capture file, until SIGTERM
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "vexahost/Client.h"
#include "vexahost/UsbTransport.h"
#include "zt_usb.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "vm-probe: %s (errno %d, %s)\n", what.c_str(), errno,
                 std::strerror(errno));
    std::exit(1);
}

void Require(bool condition, const std::string& what) {
    if (!condition) Fail(what);
}

int OpenNode() {
    const int node = open(ZT_USB_NODE, O_RDWR | O_EXCL);
    Require(node >= 0, "cannot open the node");
    return node;
}

void CheckCalls() {
    const int node = OpenNode();
    Require(open(ZT_USB_NODE, O_RDWR) == -1 && errno == EBUSY, "a second opener is not refused");
    int value = -7;
    Require(ioctl(node, ZTG_LINK_STATUS, &value) == 0 && value == 1,
            "the cable is not reported in");
    Require(ioctl(node, ZTG_LINK_STATUS, nullptr) == -1 && errno == EFAULT,
            "an address of null is accepted");
    for (const unsigned long odd : {0x5401UL, 0x80046C02UL, 0x40046C03UL, 0UL}) {
        Require(ioctl(node, odd, &value) == -1 && errno == ENOTTY, "an odd request is not refused");
    }
    close(node);
    for (int i = 0; i < 100; ++i) close(OpenNode());
}

// Runs `call` on a thread, interrupts it once it waits, and returns its errno.
int Interrupted(const std::function<ssize_t()>& call, std::chrono::milliseconds& took) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> ended{false};
    int error = 0;
    std::thread thread([&] {
        if (call() < 0) error = errno;
        ended = true;
    });
    std::this_thread::sleep_for(200ms);
    const auto start = Clock::now();
    while (!ended) {
        pthread_kill(thread.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(10ms);
    }
    thread.join();
    took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return error;
}

void CheckInterrupts() {
    const int node = OpenNode();
    Bytes buffer(30000);
    for (int i = 0; i < 3; ++i) {
        std::chrono::milliseconds took{};
        Require(Interrupted([&] { return read(node, buffer.data(), 3000); }, took) == EINTR,
                "read is not interrupted");
        std::printf("vm-probe: read ended %lld ms after a signal\n",
                    static_cast<long long>(took.count()));
        Require(
            Interrupted([&] { return write(node, buffer.data(), buffer.size()); }, took) == EINTR,
            "write is not interrupted");
        std::printf("vm-probe: write ended %lld ms after a signal\n",
                    static_cast<long long>(took.count()));
    }
}

// The cable is asked for as the service does, so that a host that comes anew is let in.
int OpenNodeAndFollowCable() {
    const int node = OpenNode();
    std::thread([node] {
        for (;; std::this_thread::sleep_for(100ms)) {
            int value = 0;
            ioctl(node, ZTG_LINK_STATUS, &value);
        }
    }).detach();
    return node;
}

void Echo() {
    const int node = OpenNodeAndFollowCable();
    Bytes buffer(65536);
    for (;;) {
        const ssize_t count = read(node, buffer.data(), buffer.size());
        if (count <= 0) continue;
        Require(write(node, buffer.data(), static_cast<std::size_t>(count)) == count ||
                    errno == ESHUTDOWN,
                "a write to the node failed");
    }
}

std::unique_ptr<vexahost::Transport> ConnectBus() {
    const auto deadline = Clock::now() + 20s;
    for (;; std::this_thread::sleep_for(50ms)) {
        auto connected = vexahost::UsbTransport::Connect();
        if (connected) return std::move(*connected);
        if (Clock::now() > deadline) Fail(connected.error().message);
    }
}

// --- one direction at a time, for figures

constexpr std::size_t kChunk = 16384;

void Drain(std::size_t total) {
    const int node = OpenNodeAndFollowCable();
    Bytes buffer(kChunk);
    for (std::size_t sum = 0; sum < total;) {
        const ssize_t count = read(node, buffer.data(), buffer.size());
        if (count > 0) sum += static_cast<std::size_t>(count);
    }
}

void Pour(std::size_t total) {
    const int node = OpenNodeAndFollowCable();
    Bytes buffer(kChunk);
    Require(read(node, buffer.data(), 1) == 1, "the host asks for nothing");
    for (std::size_t sum = 0; sum < total;) {
        const std::size_t size = std::min(kChunk, total - sum);
        Require(write(node, buffer.data(), size) == static_cast<ssize_t>(size),
                "a write to the node failed");
        sum += size;
    }
}

void Push(std::size_t total) {
    const auto bus = ConnectBus();
    const Bytes buffer(kChunk);
    for (std::size_t sum = 0; sum < total;) {
        const std::size_t size = std::min(kChunk, total - sum);
        Require(bus->WriteAll(std::span(buffer).first(size), Clock::now() + 30s).has_value(),
                "a payload could not be sent");
        sum += size;
    }
}

void Pull(std::size_t total) {
    const auto bus = ConnectBus();
    Bytes buffer(4 * kChunk);
    Require(bus->WriteAll(std::span(buffer).first(1), Clock::now() + 30s).has_value(),
            "the unit cannot be asked");
    const auto start = Clock::now();
    for (std::size_t sum = 0; sum < total;) {
        const auto count = bus->Read(buffer, 20s);
        Require(count.has_value() && *count > 0, "nothing came any more");
        sum += *count;
    }
    std::printf("%.2f\n", static_cast<double>(total) / 1e6 /
                              std::chrono::duration<double>(Clock::now() - start).count());
}

// Sends each payload on one thread and compares the echo on this one.
void SendAll(const std::vector<Bytes>& payloads) {
    const auto bus = ConnectBus();
    Bytes expected;
    for (const Bytes& payload : payloads)
        expected.insert(expected.end(), payload.begin(), payload.end());
    std::thread sender([&] {
        for (const Bytes& payload : payloads) {
            if (!bus->WriteAll(payload, Clock::now() + 30s)) Fail("a payload could not be sent");
        }
    });
    Bytes buffer(65536);
    std::size_t received = 0;
    const auto start = Clock::now();
    while (received < expected.size()) {
        const auto count = bus->Read(buffer, 20s);
        Require(count.has_value() && *count > 0,
                "nothing came back after " + std::to_string(received) + " bytes");
        Require(received + *count <= expected.size() &&
                    std::memcmp(buffer.data(), expected.data() + received, *count) == 0,
                "the echo differs after " + std::to_string(received) + " bytes");
        received += *count;
    }
    sender.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("vm-probe: %zu bytes in %zu payloads came back right, %.2f MB/s each way\n",
                received, payloads.size(), static_cast<double>(received) / seconds / 1e6);
}

Bytes RandomBytes(std::mt19937& random, std::size_t size) {
    Bytes bytes(size);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    return bytes;
}

void Send(std::size_t total) {
    std::mt19937 random(20261122);
    std::vector<Bytes> payloads;
    for (std::size_t sum = 0; sum < total; sum += payloads.back().size()) {
        payloads.push_back(
            RandomBytes(random, std::min<std::size_t>(1 + random() % 20000, total - sum)));
    }
    SendAll(payloads);
}

// One payload at a time: each has to come back whole before the next is sent.
void Sizes(std::size_t packet) {
    std::mt19937 random(1);
    for (const std::size_t whole : {1U, 2U, 3U, 8U, 31U, 32U, 33U, 64U}) {
        for (const std::size_t size : {whole * packet - 1, whole * packet, whole * packet + 1}) {
            SendAll({RandomBytes(random, size)});
        }
    }
}

// --- Windows
// ---------------------------------------------------------------------------------------------

Bytes Ask(int device, std::uint8_t type, std::uint8_t request, std::uint16_t value,
          std::uint16_t index) {
    Bytes answer(256);
    usbdevfs_ctrltransfer transfer{type, request, value, index, 256, 1000, answer.data()};
    const int size = ioctl(device, USBDEVFS_CONTROL, &transfer);
    Require(size >= 0, "the descriptor " + std::to_string(index) + " for Windows is refused");
    answer.resize(static_cast<std::size_t>(size));
    return answer;
}

// Appends text as Windows keeps it: UTF-16 with its end, behind a length of `lengthSize` bytes.
void AddText(Bytes& bytes, const std::string& text, std::size_t lengthSize) {
    const std::size_t length = 2 * (text.size() + 1);
    for (std::size_t i = 0; i < lengthSize; ++i)
        bytes.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
    for (const char letter : text + '\0') {
        bytes.push_back(static_cast<std::uint8_t>(letter));
        bytes.push_back(0);
    }
}

void CheckWindows(const char* path) {
    const int device = open(path, O_RDWR);
    Require(device >= 0, "cannot open the device on the bus");
    const Bytes signature = Ask(device, 0x80, 6, 0x03EE, 0);
    const Bytes expected{18, 3, 'M', 0, 'S', 0, 'F', 0, 'T', 0, '1', 0, '0', 0, '0', 0};
    Require(
        signature.size() == 18 && std::equal(expected.begin(), expected.end(), signature.begin()),
        "no signature of descriptors for Windows");
    const std::uint8_t request = signature[16];

    Bytes compatible{40, 0, 0, 0, 0, 1, 4, 0, 1, 0, 0, 0, 0, 0, 0, 0};  // version 1.0, one function
    for (const char letter : {'\0', '\1', 'W', 'I', 'N', 'U', 'S', 'B'})
        compatible.push_back(static_cast<std::uint8_t>(letter));
    compatible.resize(40);
    Require(Ask(device, 0xC0, request, 0, 4) == compatible, "the compatible id is not WinUSB");

    Bytes properties{142, 0, 0, 0, 0, 1, 5, 0, 1, 0, 132, 0, 0, 0, 1, 0, 0, 0};
    AddText(properties, "DeviceInterfaceGUID", 2);
    AddText(properties, "{6E2D0A8C-3B57-4F19-9C64-51A7D8E3B042}", 4);
    Require(Ask(device, 0xC1, request, 0, 5) == properties, "the properties lack the GUID");
}

// --- pulled cables
// ---------------------------------------------------------------------------------------

void Set(const std::string& file, const std::string& value) {
    std::ofstream stream(file);
    stream << value << std::endl;
    Require(static_cast<bool>(stream), "cannot write " + file);
}

// One program as a host that is there all the time; each cable ends a session with data.
void PullCables(unsigned cycles, const std::string& file, const std::string& out,
                const std::string& in) {
    constexpr vexahost::ChildId kController = 0x10;
    constexpr vexahost::ChildId kChildren[] = {0x11, 0x13};
    constexpr unsigned kBlocks = 20;
    auto connected = vexahost::Client::Connect(
        [](const vexahost::ConnectLimits&) { return vexahost::UsbTransport::Connect(); }, {}, 20s);
    if (!connected) Fail(connected.error().message);
    vexahost::Client& client = **connected;
    for (unsigned cycle = 0;; ++cycle) {
        const std::string when = " after " + std::to_string(cycle) + " cables";
        Require(client.OpenController(kController, false, 20s).has_value() &&
                    client.OpenDevice("Accelerometer", kChildren[0], 20s).has_value() &&
                    client.OpenDevice("Microphone", kChildren[1], 20s).has_value(),
                "the devices cannot be opened" + when);
        for (unsigned block = 0; block < kBlocks; ++block) {
            Require(client.ReceiveAny(kChildren, false, 20s).has_value(), "no data" + when);
        }
        if (cycle % 10 == 0) std::printf("# %u cables pulled\n", cycle);
        if (cycle == cycles) break;
        Set(file, out);
        auto received = client.ReceiveAny(kChildren, false, 20s);
        while (received) received = client.ReceiveAny(kChildren, false, 20s);
        Require(received.error().kind == vexahost::ErrorKind::kLinkLost,
                "the cable is pulled and the host does not see it" + when);
        Set(file, in);
        const auto reconnected = client.Reconnect(20s);
        if (!reconnected) Fail(reconnected.error().message + when);
    }
}

// --- a capture of the bus, in the format of Linux's own monitor
// --------------------------------------

volatile sig_atomic_t isEnding = 0;

void Put(std::FILE* file, const void* data, std::size_t size) { std::fwrite(data, 1, size, file); }
void Put32(std::FILE* file, std::uint32_t value) { Put(file, &value, sizeof value); }

void Capture(const char* path) {
    struct Event {
        void* header;
        void* data;
        std::size_t size;
    };
    constexpr std::size_t kHeader = 64;
    constexpr std::size_t kMostData = 65536;
    const unsigned long kNextEvent = _IOW(0x92, 10, Event);  // MON_IOCX_GETX
    struct sigaction action {};
    action.sa_handler = [](int) { isEnding = 1; };
    sigaction(SIGTERM, &action, nullptr);
    const int monitor = open("/dev/usbmon1", O_RDONLY);
    Require(monitor >= 0, "cannot open the bus's monitor");
    std::FILE* const file = std::fopen(path, "w");
    Require(file != nullptr, "cannot write the capture");
    for (const std::uint32_t word : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 0x40000U, 220U})
        Put32(file, word);
    std::puts("vm-probe: captures");
    std::fflush(stdout);
    Bytes header(kHeader);
    Bytes data(kMostData);
    while (isEnding == 0) {
        Event event{header.data(), data.data(), data.size()};
        if (ioctl(monitor, kNextEvent, &event) != 0) continue;
        std::int64_t seconds = 0;
        std::int32_t microseconds = 0;
        std::uint32_t captured = 0;
        std::memcpy(&seconds, &header[16], sizeof seconds);
        std::memcpy(&microseconds, &header[24], sizeof microseconds);
        std::memcpy(&captured, &header[36], sizeof captured);
        Put32(file, static_cast<std::uint32_t>(seconds));
        Put32(file, static_cast<std::uint32_t>(microseconds));
        Put32(file, static_cast<std::uint32_t>(kHeader) + captured);
        Put32(file, static_cast<std::uint32_t>(kHeader) + captured);
        Put(file, header.data(), kHeader);
        Put(file, data.data(), captured);
    }
    std::fclose(file);
}

}  // namespace

int main(int count, char** words) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string verb = count > 1 ? words[1] : "";
    const char* const argument = count > 2 ? words[2] : "";
    if (verb == "calls") {
        CheckCalls();
    } else if (verb == "interrupt") {
        CheckInterrupts();
    } else if (verb == "echo") {
        Echo();
    } else if (verb == "send") {
        Send(std::strtoul(argument, nullptr, 10));
    } else if (verb == "pour" || verb == "drain" || verb == "pull" || verb == "push") {
        const auto move = verb == "pour"    ? Pour
                          : verb == "drain" ? Drain
                          : verb == "pull"  ? Pull
                                            : Push;
        move(std::strtoul(argument, nullptr, 10));
    } else if (verb == "sizes") {
        Sizes(std::strtoul(argument, nullptr, 10));
    } else if (verb == "windows") {
        CheckWindows(argument);
    } else if (verb == "cycles" && count == 6) {
        PullCables(static_cast<unsigned>(std::strtoul(argument, nullptr, 10)), words[3], words[4],
                   words[5]);
    } else if (verb == "capture") {
        Capture(argument);
    } else {
        Fail("no such verb: " + verb);
    }
}
