#include "tool/Connection.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "tool/Parse.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

namespace vexahost::tool {

namespace {

// A colon may also be part of the path, as in device names by USB port.
Expected<std::unique_ptr<Transport>> OpenSerial(const std::string& text, bool flowControl) {
    SerialOptions options;
    options.flowControl = flowControl;
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || access(text.c_str(), F_OK) == 0) {
        return SerialTransport::Open(text, options);
    }
    const auto baud = ParseNumber<int>(text.substr(colon + 1));
    if (!baud) {
        return Error{ErrorKind::kInvalidArgument,
                     "--serial " + text + ": expected PATH or PATH:BAUD"};
    }
    options.baudRate = *baud;
    return SerialTransport::Open(text.substr(0, colon), options);
}

}  // namespace

const std::string& UnitAddress::Text() const {
    if (!serial.empty()) return serial;
    return tcp.empty() ? directory : tcp;
}

TransportFactory UnitAddress::Factory() const {
    return [unit = *this]() -> Expected<std::unique_ptr<Transport>> {
        if (!unit.serial.empty()) return OpenSerial(unit.serial, unit.flowControl);
        if (!unit.tcp.empty()) return SocketTransport::ConnectTcp(unit.tcp);
        return SocketTransport::ConnectUnit(unit.directory);
    };
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
    };
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

Expected<std::unique_ptr<Client>> ConnectAndSync(const UnitAddress& unit, ClientOptions options) {
    return Client::Connect(unit.Factory(), std::move(options));
}

Expected<std::unique_ptr<Client>> ConnectWithController(const UnitAddress& unit,
                                                        ClientOptions options) {
    auto client = ConnectAndSync(unit, std::move(options));
    if (!client) return client;
    if (const auto opened = (*client)->OpenController(kControllerId, false); !opened) {
        return opened.error();
    }
    return client;
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

void LeaveInOrder(Client& client) { static_cast<void>(client.CloseController()); }

}  // namespace vexahost::tool
