#include "tool/Connection.h"

#include <fcntl.h>
#include <limits.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <thread>

#include "testkit/Descriptor.h"
#include "tool/Parse.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"
#include "vexahost/UsbTransport.h"

namespace vexahost::tool {

namespace {

using vexa::testkit::Descriptor;

// The serial line and its former settings, which a second Ctrl-C restores.
std::array<char, PATH_MAX> linePath{};
termios lineSettings;

int OpenLine(const char* path) { return open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); }

// Called by a signal handler.
void RestoreLine() { tcsetattr(OpenLine(linePath.data()), TCSANOW, &lineSettings); }

Expected<std::unique_ptr<Transport>> OpenSerialLine(const std::string& path,
                                                    const SerialOptions& options) {
    termios settings{};
    const bool isTerminal = tcgetattr(Descriptor(OpenLine(path.c_str())).Get(), &settings) == 0;
    auto opened = SerialTransport::Open(path, options);
    if (opened && isTerminal && path.size() < linePath.size()) {
        lineSettings = settings;
        path.copy(linePath.data(), path.size());
        static const AtSecondInterrupt restoring(RestoreLine);
    }
    return opened;
}

// A colon may also be part of the path, as in device names by USB port.
Expected<std::unique_ptr<Transport>> OpenSerial(const std::string& text, bool flowControl) {
    SerialOptions options;
    options.flowControl = flowControl;
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || access(text.c_str(), F_OK) == 0) {
        return OpenSerialLine(text, options);
    }
    const auto baud = ParseNumber<int>(text.substr(colon + 1));
    if (!baud) {
        return Error{ErrorKind::kInvalidArgument,
                     "--serial " + text + ": expected PATH or PATH:BAUD"};
    }
    options.baudRate = *baud;
    return OpenSerialLine(text.substr(0, colon), options);
}

Expected<UsbAddress> ParseUsb(const std::string& text) {
    return UsbAddress::Parse(text == UnitAddress::kAnyUsb ? "" : text);
}

bool IsUsbAddress(const std::string& word) { return !word.empty() && ParseUsb(word).has_value(); }

}  // namespace

std::string UnitAddress::Text() const {
    if (!usb.empty()) {
        const auto address = ParseUsb(usb);
        return "USB " + (address ? address->Text() : usb);
    }
    if (!serial.empty()) return serial;
    return tcp.empty() ? directory : tcp;
}

namespace {

Expected<std::unique_ptr<Transport>> ConnectOnce(const UnitAddress& unit,
                                                 const ConnectLimits& limits) {
    if (!unit.usb.empty()) {
        const auto address = ParseUsb(unit.usb);
        if (!address) return address.error();
        return UsbTransport::Connect(*address);
    }
    if (!unit.serial.empty()) return OpenSerial(unit.serial, unit.flowControl);
    if (!unit.tcp.empty()) return SocketTransport::ConnectTcp(unit.tcp, limits);
    return SocketTransport::ConnectUnit(unit.directory, limits);
}

// Tries until there is a unit, at the latest until `end`.
Expected<std::unique_ptr<Transport>> AwaitUnit(const UnitAddress& unit, ConnectLimits limits,
                                               Deadline end) {
    constexpr Milliseconds kPause{100};
    limits.deadline = std::max(limits.deadline, end);
    for (bool isSaid = false;; isSaid = true) {
        auto connected = ConnectOnce(unit, limits);
        const bool isThere = connected || connected.error().kind != ErrorKind::kCannotConnect;
        const auto now = std::chrono::steady_clock::now();
        if (isThere || now >= end || limits.IsCancelled()) return connected;
        if (!isSaid) {
            std::fprintf(stderr, "vexa-host: waiting for the unit: %s\n",
                         connected.error().message.c_str());
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace

TransportFactory UnitAddress::Factory() const {
    // Only the first connection is waited for.
    const auto waits = std::make_shared<std::atomic<bool>>(patience.has_value());
    TransportFactory factory = [unit = *this, waits](const ConnectLimits& limits) {
        if (!waits->exchange(false)) return ConnectOnce(unit, limits);
        return AwaitUnit(unit, limits, DeadlineAfter(*unit.patience));
    };
    return recorder ? Tapped(std::move(factory), recorder) : factory;
}

std::string DefaultUnitDirectory() {
    const char* directory = std::getenv("VEXA_UNIT_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "build/unit";
}

std::vector<Option> WithUnitOptions(UnitAddress& unit, std::vector<Option> more) {
    std::vector<Option> options = {
        {.name = "--dir",
         .placeholder = "DIR",
         .help = "directory of the unit, or its host socket ($VEXA_UNIT_DIR, else build/unit)",
         .target = &unit.directory},
        {.name = "--tcp",
         .placeholder = "HOST[:PORT]",
         .help = "a unit that serves its link over TCP (port 38144)",
         .target = &unit.tcp,
         .excludes = {"--dir"}},
        {.name = "--serial",
         .placeholder = "PATH[:BAUD]",
         .help = "a unit at the end of a serial line (38400 baud, raw, 8N1)",
         .target = &unit.serial,
         .excludes = {"--dir", "--tcp"}},
        {.name = "--rts-cts",
         .placeholder = "",
         .help = "flow control on the serial line",
         .target = &unit.flowControl,
         .needs = "--serial"},
        {.name = "--usb",
         .placeholder = "[VENDOR:PRODUCT[:SERIAL]]",
         .help = "a unit on the USB (1209:0001, any serial number)",
         .target = FlagWithValue{&unit.usb, UnitAddress::kAnyUsb, IsUsbAddress},
         .excludes = {"--dir", "--tcp", "--serial"}},
        {.name = "--wait",
         .placeholder = "TIME",
         .help = "wait so long for a unit to appear",
         .target = &unit.patience},
    };
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

void Leaver::operator()(Client* client) const {
    constexpr Milliseconds kPatience{2000};
    const std::unique_ptr<Client> owned(client);
    if (!closesController) return;
    SetLeaving(true);
    static_cast<void>(client->CloseController(kPatience));
    SetLeaving(false);
}

Expected<ClientHandle> ConnectAndSync(const UnitAddress& unit, ClientOptions options) {
    CatchInterrupts();
    options.isCancelled = IsCancelled;
    const Milliseconds timeout = Client::kDefaultTimeout + unit.patience.value_or(Milliseconds{0});
    auto client = Client::Connect(unit.Factory(), std::move(options), timeout);
    if (!client) return client.error();
    return ClientHandle(client->release());
}

Expected<ClientHandle> ConnectWithController(const UnitAddress& unit, ClientOptions options) {
    auto client = ConnectAndSync(unit, std::move(options));
    if (!client) return client;
    if (const auto opened = (*client)->OpenController(kControllerId, false); !opened) {
        return opened.error();
    }
    return client;
}

std::vector<VirtualDevice> ListDevices(const UnitAddress& unit) {
    constexpr Milliseconds kPatience{1000};
    constexpr std::string_view kRequest = "{\"request\": \"state\"}\n";
    if (!unit.serial.empty() || !unit.tcp.empty() || !unit.usb.empty()) return {};
    const std::filesystem::path given = unit.directory;
    std::error_code ignored;
    const auto folder = std::filesystem::is_directory(given, ignored) ? given : given.parent_path();
    const Deadline deadline = DeadlineAfter(kPatience);
    auto control = SocketTransport::ConnectUnit(folder / "control.sock", {deadline, {}});
    if (!control) return {};
    const std::vector<std::uint8_t> request(kRequest.begin(), kRequest.end());
    if (!(*control)->WriteAll(request, deadline)) return {};
    std::string answer;
    std::array<std::uint8_t, 4096> buffer;
    while (!answer.ends_with('\n') && std::chrono::steady_clock::now() < deadline) {
        const auto count = (*control)->Read(buffer, kPatience);
        if (!count) return {};
        answer.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*count));
    }
    return AttachedDevices(answer);
}

Expected<Done> OpenDevice(Client& client, const UnitAddress& unit, const std::string& name,
                          ChildId child) {
    auto opened = client.OpenDevice(name, child);
    if (opened || opened.error().kind != ErrorKind::kRefused) return opened;
    Error error = opened.error();
    std::string names;
    for (const VirtualDevice& device : ListDevices(unit)) names += " " + device.name;
    if (!names.empty()) error.message += "; this unit's devices:" + names;
    return error;
}

Expected<Done> Hold(const Client& client, std::optional<Milliseconds> duration) {
    constexpr Milliseconds kLinkPoll{50};
    using Clock = std::chrono::steady_clock;
    const auto end = duration ? Clock::now() + *duration : Clock::time_point::max();
    while (Clock::now() < end && !IsInterrupted()) {
        if (auto error = client.LinkError()) return *error;
        WaitInterruptibly(std::min(end, Clock::now() + kLinkPoll));
    }
    return Done{};
}

}  // namespace vexahost::tool
