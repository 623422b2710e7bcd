#include "Connection.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "Number.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

using vexahost::Client;
using vexahost::ClientOptions;
using vexahost::Error;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::SerialTransport;
using vexahost::SocketTransport;
using vexahost::Transport;

namespace {

// A colon may also be part of the path, as in the names that go by the place of the plug.
Expected<std::unique_ptr<Transport>> OpenSerial(const std::string& text, bool flowControl) {
    vexahost::SerialOptions options;
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

vexahost::TransportFactory UnitAddress::Factory() const {
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

Expected<std::unique_ptr<Client>> ConnectAndSync(const UnitAddress& unit, ClientOptions options) {
    return Client::Connect(unit.Factory(), std::move(options));
}

Expected<std::unique_ptr<Client>> ConnectWithController(const UnitAddress& unit,
                                                        ClientOptions options) {
    auto client = ConnectAndSync(unit, std::move(options));
    if (!client) return client;
    if (const auto opened = (*client)->OpenController(kControllerId, false); !opened) {
        return opened.Failure();
    }
    return client;
}

void LeaveInOrder(Client& client) { static_cast<void>(client.CloseController()); }
