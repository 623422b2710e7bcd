// The shell's commands that talk to the unit.
#include <algorithm>

#include "../DeviceData.h"
#include "../Duration.h"
#include "../Interrupt.h"
#include "../Number.h"
#include "Session.h"

using vexahost::ChildId;
using vexahost::Client;
using vexahost::Expected;
using vexahost::Milliseconds;

namespace {

constexpr const char* kController = "controller";
constexpr const char* kDaq = "daq";

std::string IdText(ChildId id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", id);
    return text;
}

// What a request came to, with what to say when it went well.
template <typename T>
Outcome Said(const Expected<T>& result, std::string text) {
    return result ? Outcome::Good(std::move(text)) : Outcome::Failed(result.Failure());
}

Outcome WrongId(const std::string& text) {
    return Outcome::Wrong(text + ": no device with this name is open, and it is no id");
}

Outcome WrongHex() { return Outcome::Wrong("expected bytes in hex, two digits each: 40 05 01 46"); }

std::optional<std::vector<std::uint8_t>> HexFrom(const Words& arguments, std::size_t first) {
    return ParseHex(std::span(arguments).subspan(first));
}

}  // namespace

Outcome Session::Sync(const Words& /*arguments*/) { return Said(client->InitialSync(), "in step"); }

Outcome Session::Controller(const Words& arguments) {
    const bool withDaq = !arguments.empty();
    if (withDaq && arguments[0] != kDaq) return Outcome::Wrong("usage: controller [daq]");
    ForgetAll();
    daqOpened = Clock::now();
    return Said(client->OpenController(kControllerId, withDaq),
                withDaq ? "the controller and the DAQ link are open" : "the controller is open");
}

Outcome Session::Query(const Words& arguments) {
    const std::string wanted = arguments.empty() ? "" : arguments[0];
    if (!wanted.empty() && wanted != "holds" && wanted != "free") {
        return Outcome::Wrong("usage: query [holds|free]");
    }
    const auto holds = client->QueryDaqApplication();
    if (!holds) return Outcome::Failed(holds.Failure());
    const std::string text = *holds ? "the DAQ application holds the hardware"
                                    : "the DAQ application does not hold the hardware";
    if (!wanted.empty() && *holds != (wanted == "holds")) return Outcome::Unmet(text);
    return Outcome::Good(text);
}

Outcome Session::Takeover(const Words& /*arguments*/) {
    const auto taken = client->TakeDaqOver();
    return Said(taken, "the DAQ is this host's");
}

Outcome Session::Open(const Words& arguments) {
    const auto id = arguments.size() > 1 ? ParseNumber<ChildId>(arguments[1]) : FreeId();
    if (!id) return Outcome::Wrong(arguments[1] + ": expected an id, decimal or 0x..");
    const auto opened = client->OpenDevice(arguments[0], *id);
    if (!opened) return Outcome::Failed(opened.Failure());
    devices.push_back({arguments[0], *id, Clock::now()});
    collector.Add(*id);
    return Outcome::Good(arguments[0] + " is open as " + IdText(*id));
}

Outcome Session::Close(const Words& arguments) {
    if (arguments[0] == kController) {
        const auto closed = client->CloseController();
        if (closed) ForgetAll();
        return Said(closed, "the controller is closed");
    }
    const auto id = FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    const auto closed = client->CloseDevice(*id);
    if (closed) {
        std::erase_if(devices, [&](const Device& device) { return device.id == *id; });
        collector.Remove(*id);
    }
    return Said(closed, arguments[0] + " is closed");
}

Outcome Session::Send(const Words& arguments) {
    const auto id = FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    const auto bytes = HexFrom(arguments, 1);
    if (!bytes) return WrongHex();
    return Said(client->Send(*id, *bytes), "");
}

Outcome Session::Raw(const Words& arguments) {
    const auto bytes = HexFrom(arguments, 0);
    if (!bytes) return WrongHex();
    return Said(client->SendRaw(*bytes), "");
}

Outcome Session::Mux(const Words& arguments) {
    const auto command = ParseNumber<std::uint8_t>(arguments[0]);
    if (!command) return Outcome::Wrong(arguments[0] + ": expected a command, 0 to 255");
    std::vector<std::uint8_t> payload;
    if (arguments.size() > 1) {
        auto bytes = HexFrom(arguments, 1);
        if (!bytes) return WrongHex();
        payload = std::move(*bytes);
    }
    return Said(client->SendMultiplexerCommand(*command, payload), "acknowledged");
}

Outcome Session::Receive(const Words& arguments) {
    const bool fromDaq = arguments[0] == kDaq;
    const auto id = fromDaq ? std::optional<ChildId>{0} : FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    const auto count = arguments.size() > 1 ? ParseNumber<std::size_t>(arguments[1])
                                            : std::optional<std::size_t>{1};
    if (!count) return Outcome::Wrong(arguments[1] + ": expected a number of blocks");
    const auto timeout =
        arguments.size() > 2 ? ParseDuration(arguments[2]) : std::optional{Client::kDefaultTimeout};
    if (!timeout) return Outcome::Wrong(arguments[2] + ": expected a time such as 3s");
    Outcome outcome;
    for (std::size_t i = 0; i < *count; ++i) {
        const auto block =
            fromDaq ? collector.ReceiveDaq(*timeout) : collector.Receive(*id, *timeout);
        if (!block) {
            outcome.error = block.Failure();
            return outcome;
        }
        if (i > 0) outcome.text += '\n';
        outcome.text += DescribeBlock(block->bytes);
    }
    return outcome;
}

Outcome Session::Arm(const Words& arguments) {
    const auto id = FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    return Said(client->Send(*id, HidInitRequest()), "");
}

Outcome Session::Reconnect(const Words& arguments) {
    const auto time =
        arguments.empty() ? std::optional{Milliseconds{5000}} : ParseDuration(arguments[0]);
    if (!time) return Outcome::Wrong(arguments[0] + ": expected a time such as 5s");
    const auto connected = client->Reconnect(*time);
    ForgetAll();
    return Said(connected, "connected and in step; nothing is open");
}

Outcome Session::Disconnect(const Words& /*arguments*/) {
    client->Close();
    return Outcome::Good();
}

Outcome Session::Wait(const Words& arguments) {
    const auto time = ParseDuration(arguments[0]);
    if (!time) return Outcome::Wrong(arguments[0] + ": expected a time such as 500ms");
    WaitInterruptibly(Clock::now() + *time);
    return Outcome::Good();
}

Outcome Session::Echo(const Words& arguments) {
    std::string text;
    for (const std::string& word : arguments) {
        if (!text.empty()) text += ' ';
        text += word;
    }
    return Outcome::Good(text);
}

Outcome Session::Help(const Words& /*arguments*/) { return Outcome::Good(HelpText()); }

Outcome Session::Quit(const Words& /*arguments*/) {
    Outcome outcome;
    outcome.quits = true;
    return outcome;
}
