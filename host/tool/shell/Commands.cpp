// The shell's commands, and the table of them: a new one is an entry there and a function here.
#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <functional>
#include <map>

#include "tool/Exit.h"
#include "tool/Parse.h"
#include "tool/Samples.h"
#include "tool/shell/Session.h"

namespace vexahost::tool {

namespace {

constexpr const char* kController = "controller";
constexpr const char* kDaq = "daq";

std::string IdText(ChildId id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", id);
    return text;
}

// The outcome of a request; `text` is printed when it succeeded.
template <typename T>
Outcome Said(const Expected<T>& result, std::string text) {
    return result ? Outcome::Good(std::move(text)) : Outcome::Failed(result.error());
}

Outcome WrongId(const std::string& text) {
    return Outcome::Wrong(text + ": no device with this name is open, and it is not an id");
}

Outcome WrongHex() { return Outcome::Wrong("expected bytes in hex, two digits each: 40 05 01 46"); }

std::optional<std::vector<std::uint8_t>> HexFrom(const Words& arguments, std::size_t first) {
    return ParseHex(std::span(arguments).subspan(first));
}

Outcome Sync(Session& session, const Words& /*arguments*/) {
    return Said(session.client->InitialSync(), "in step");
}

Outcome Controller(Session& session, const Words& arguments) {
    const bool withDaq = !arguments.empty();
    if (withDaq && arguments[0] != kDaq) return Outcome::Wrong("usage: controller [daq]");
    session.ForgetAll();
    return Said(session.client->OpenController(kControllerId, withDaq),
                withDaq ? "the controller and the DAQ link are open" : "the controller is open");
}

Outcome Query(Session& session, const Words& arguments) {
    const std::string wanted = arguments.empty() ? "" : arguments[0];
    if (!wanted.empty() && wanted != "holds" && wanted != "free") {
        return Outcome::Wrong("usage: query [holds|free]");
    }
    const auto holds = session.client->QueryDaqApplication();
    if (!holds) return Outcome::Failed(holds.error());
    const bool isHolder = *holds == DaqApplication::kHoldsHardware;
    const std::string text = isHolder ? "the DAQ application holds the hardware"
                                      : "the DAQ application does not hold the hardware";
    if (!wanted.empty() && isHolder != (wanted == "holds")) return Outcome::Unmet(text);
    return Outcome::Good(text);
}

Outcome Takeover(Session& session, const Words& /*arguments*/) {
    const auto taken = session.client->TakeDaqOver();
    return Said(taken, "the DAQ is this host's");
}

Outcome Open(Session& session, const Words& arguments) {
    const auto id = arguments.size() > 1 ? ParseNumber<ChildId>(arguments[1]) : session.FreeId();
    if (!id) return Outcome::Wrong(arguments[1] + ": expected an id, decimal or 0x..");
    const auto opened = OpenDevice(*session.client, session.unit, arguments[0], *id);
    if (!opened) return Outcome::Failed(opened.error());
    session.devices.push_back({arguments[0], *id, Session::Clock::now()});
    return Outcome::Good(arguments[0] + " is open as " + IdText(*id));
}

Outcome Close(Session& session, const Words& arguments) {
    if (arguments[0] == kController) {
        const auto closed = session.client->CloseController();
        if (closed) session.ForgetAll();
        return Said(closed, "the controller is closed");
    }
    const auto id = session.FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    const auto closed = session.client->CloseDevice(*id);
    if (closed) {
        std::erase_if(session.devices,
                      [&](const Session::Device& device) { return device.id == *id; });
    }
    return Said(closed, arguments[0] + " is closed");
}

Outcome Send(Session& session, const Words& arguments) {
    const auto id = session.FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    const auto bytes = HexFrom(arguments, 1);
    if (!bytes) return WrongHex();
    return Said(session.client->Send(*id, *bytes), "");
}

Outcome Raw(Session& session, const Words& arguments) {
    const auto bytes = HexFrom(arguments, 0);
    if (!bytes) return WrongHex();
    return Said(session.client->SendRaw(*bytes), "");
}

Outcome Mux(Session& session, const Words& arguments) {
    const auto command = ParseNumber<std::uint8_t>(arguments[0]);
    if (!command) return Outcome::Wrong(arguments[0] + ": expected a command, 0 to 255");
    std::vector<std::uint8_t> payload;
    if (arguments.size() > 1) {
        auto bytes = HexFrom(arguments, 1);
        if (!bytes) return WrongHex();
        payload = std::move(*bytes);
    }
    return Said(session.client->SendMultiplexerCommand(*command, payload), "acknowledged");
}

// The next block of `child`, without one of the DAQ. Ctrl-C ends the wait.
Expected<Block> ReceiveInterruptibly(Client& client, std::optional<ChildId> child,
                                     Milliseconds timeout) {
    constexpr Milliseconds kSlice{50};
    for (;;) {
        const auto slice = std::min(timeout, kSlice);
        auto block = child ? client.Receive(*child, slice) : client.ReceiveDaq(slice);
        timeout -= slice;
        const bool isTimeout = !block && block.error().kind == ErrorKind::kTimeout;
        if (!isTimeout || timeout == Milliseconds{0} || IsInterrupted()) return block;
    }
}

// The newest block of what `arguments` name, for which those before it are dropped.
Outcome ReceiveLatest(Session& session, const Words& arguments) {
    if (arguments.size() < 2) return Outcome::Wrong("usage: receive latest ID|NAME|daq [TIME]");
    const bool fromDaq = arguments[1] == kDaq;
    const auto id = fromDaq ? std::optional<ChildId>{} : session.FindId(arguments[1]);
    if (!id && !fromDaq) return WrongId(arguments[1]);
    const auto timeout =
        arguments.size() > 2 ? ParseDuration(arguments[2]) : std::optional{Client::kDefaultTimeout};
    if (!timeout) return Outcome::Wrong(arguments[2] + ": expected a time such as 3s");
    auto block = ReceiveInterruptibly(*session.client, id, *timeout);
    if (!block) return Outcome::Failed(block.error());
    while (auto newer = ReceiveInterruptibly(*session.client, id, Milliseconds{0})) block = newer;
    return Outcome::Good(session.Describe(id, *block));
}

Outcome Receive(Session& session, const Words& arguments) {
    if (arguments[0] == "latest") return ReceiveLatest(session, arguments);
    const bool fromDaq = arguments[0] == kDaq;
    const auto id = fromDaq ? std::optional<ChildId>{0} : session.FindId(arguments[0]);
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
            ReceiveInterruptibly(*session.client, fromDaq ? std::nullopt : id, *timeout);
        if (!block) {
            outcome.error = block.error();
            return outcome;
        }
        if (i > 0) outcome.text += '\n';
        outcome.text += session.Describe(fromDaq ? std::nullopt : id, *block);
    }
    return outcome;
}

Outcome Arm(Session& session, const Words& arguments) {
    const auto id = session.FindId(arguments[0]);
    if (!id) return WrongId(arguments[0]);
    return Said(session.client->Send(*id, HidInitRequest()), "");
}

Outcome Reconnect(Session& session, const Words& arguments) {
    const auto time =
        arguments.empty() ? std::optional{Milliseconds{5000}} : ParseDuration(arguments[0]);
    if (!time) return Outcome::Wrong(arguments[0] + ": expected a time such as 5s");
    const auto connected = session.client->Reconnect(*time);
    session.ForgetAll();
    return Said(connected, "connected and in step; nothing is open");
}

Outcome Disconnect(Session& session, const Words& /*arguments*/) {
    session.client->Close();
    return Outcome::Good();
}

Outcome Wait(Session& /*session*/, const Words& arguments) {
    const auto time = ParseDuration(arguments[0]);
    if (!time) return Outcome::Wrong(arguments[0] + ": expected a time such as 500ms");
    WaitInterruptibly(Session::Clock::now() + *time);
    return Outcome::Good();
}

Outcome Echo(Session& /*session*/, const Words& arguments) {
    std::string text;
    for (const std::string& word : arguments) {
        if (!text.empty()) text += ' ';
        text += word;
    }
    return Outcome::Good(text);
}

Outcome Help(Session& /*session*/, const Words& /*arguments*/) {
    return Outcome::Good(CommandsHelp());
}

Outcome Quit(Session& /*session*/, const Words& /*arguments*/) {
    Outcome outcome;
    outcome.quits = true;
    return outcome;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    return std::max(time.count(), 0.001);
}

std::string Line(const char* name, ChildId id, const ChildStatistics& counts, double seconds) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "%-14.40s 0x%-5X %8" PRIu64 " blocks %10" PRIu64 " bytes %8.1f/s %5" PRIu64
                  " gaps %5" PRIu64 " dropped\n",
                  name, id, counts.blocks, counts.bytes,
                  static_cast<double>(counts.blocks) / seconds, counts.sequenceGaps,
                  counts.dropped);
    return text;
}

// The DAQ's packets since the session's devices were last forgotten.
ClientStatistics DaqCounts(const Session& session) {
    ClientStatistics counts = session.client->Statistics();
    counts.daqPackets -= session.before.daqPackets;
    counts.daqWrongChecksums -= session.before.daqWrongChecksums;
    counts.daqDropped -= session.before.daqDropped;
    return counts;
}

Outcome Stats(Session& session, const Words& /*arguments*/) {
    std::string text;
    for (const Session::Device& device : session.devices) {
        const auto counts = session.client->StatisticsOf(device.id);
        if (!counts) continue;
        text += Line(device.name.c_str(), device.id, *counts, SecondsSince(device.opened));
    }
    const auto daq = DaqCounts(session);
    const auto all = session.client->Statistics();
    char rest[300];
    std::snprintf(rest, sizeof rest,
                  "DAQ            %" PRIu64 " packets, %" PRIu64 " with a wrong checksum, %" PRIu64
                  " dropped\nlink           %" PRIu64 " packets, %" PRIu64 " damaged, %" PRIu64
                  " stray replies, %" PRIu64 " stray packets",
                  daq.daqPackets, daq.daqWrongChecksums, daq.daqDropped, all.packets,
                  all.wrongChecksums, all.strayReplies, all.strayPackets);
    return Outcome::Good(text + rest);
}

std::optional<double> DaqFigure(const Session& session, const std::string& figure) {
    const auto counts = DaqCounts(session);
    const auto packets = static_cast<double>(counts.daqPackets);
    if (figure == "packets") return packets;
    if (figure == "rate") return packets / SecondsSince(session.daqSince);
    if (figure == "badsums") return static_cast<double>(counts.daqWrongChecksums);
    if (figure == "dropped") return static_cast<double>(counts.daqDropped);
    return std::nullopt;
}

// The figure of a device, or of the DAQ, that "check" names.
Expected<double> Figure(const Session& session, const std::string& device,
                        const std::string& figure) {
    const auto unknown = [&](const char* known) {
        return Error{ErrorKind::kInvalidArgument,
                     device + " has no figure \"" + figure + "\": there are " + known};
    };
    if (device == kDaq) {
        const auto value = DaqFigure(session, figure);
        return value ? Expected<double>(*value) : unknown("packets, rate, badsums, dropped");
    }
    const auto id = session.FindId(device);
    const auto entry = std::ranges::find(session.devices, id.value_or(0), &Session::Device::id);
    const auto found = id ? session.client->StatisticsOf(*id) : std::nullopt;
    if (!found || entry == session.devices.end()) {
        return Error{ErrorKind::kInvalidArgument, device + " is not open"};
    }
    const ChildStatistics& counts = *found;
    if (figure == "blocks") return static_cast<double>(counts.blocks);
    if (figure == "bytes") return static_cast<double>(counts.bytes);
    if (figure == "rate") return static_cast<double>(counts.blocks) / SecondsSince(entry->opened);
    if (figure == "gaps") return static_cast<double>(counts.sequenceGaps);
    if (figure == "dropped") return static_cast<double>(counts.dropped);
    return unknown("blocks, bytes, rate, gaps, dropped");
}

Outcome Check(Session& session, const Words& arguments) {
    static const std::map<std::string, std::function<bool(double, double)>> operators = {
        {"<", std::less<>{}},           {"<=", std::less_equal<>{}}, {"=", std::equal_to<>{}},
        {">=", std::greater_equal<>{}}, {">", std::greater<>{}},
    };
    const auto compare = operators.find(arguments[2]);
    const auto wanted = ParseNumber<long>(arguments[3]);
    if (compare == operators.end() || !wanted) {
        return Outcome::Wrong("usage: check ID|NAME|daq FIGURE <|<=|=|>=|> N, a whole number");
    }
    const auto figure = Figure(session, arguments[0], arguments[1]);
    if (!figure) return Outcome::Failed(figure.error());
    char text[64];
    std::snprintf(text, sizeof text, " is %.10g", std::round(*figure * 10) / 10);
    const std::string said = arguments[0] + " " + arguments[1] + text;
    if (compare->second(*figure, static_cast<double>(*wanted))) return Outcome::Good(said);
    return Outcome::Unmet(said + ", not " + arguments[2] + " " + arguments[3]);
}

}  // namespace

const std::vector<Command>& Commands() {
    constexpr std::size_t kMany = 1000;
    static const std::vector<Command> commands = {
        {"sync", "", "bring the unit's packet parser in step", 0, 0, Sync},
        {"controller", "[daq]",
         "open the controller, with or without the DAQ; closes everything else", 0, 1, Controller},
        {"query", "[holds|free]",
         "does the DAQ application hold the hardware? fails if it is not as given", 0, 1, Query},
        {"takeover", "", "take the hardware from the unit's applications", 0, 0, Takeover},
        {"open", "NAME [ID]", "open the first device of the type that NAME stands for", 1, 2, Open},
        {"close", "ID|NAME|controller", "close a device, or the controller with all devices", 1, 1,
         Close},
        {"arm", "ID|NAME", "send a HID sensor its init request", 1, 1, Arm},
        {"send", "ID|NAME HEX", "send bytes to a device, at most 247", 2, kMany, Send},
        {"raw", "HEX", "send bytes as they are", 1, kMany, Raw},
        {"mux", "COMMAND [HEX]", "send a multiplexer command; the DAQ acknowledges it", 1, kMany,
         Mux},
        {"receive", "ID|NAME|daq [N] [TIME]",
         "show the N (1) oldest blocks not shown yet, each within TIME (3s)", 1, 3, Receive},
        {"receive latest", "ID|NAME|daq [TIME]", "show the newest block and drop those before it",
         1, 3, ReceiveLatest},
        {"stats", "", "statistics of each device since it was opened, and of the link", 0, 0,
         Stats},
        {"check", "ID|NAME|daq FIGURE OP N", "fail unless the figure (below) is as given", 4, 4,
         Check},
        {"reconnect", "[TIME]", "connect anew within TIME (5s); nothing is open afterwards", 0, 1,
         Reconnect},
        {"disconnect", "", "end the connection", 0, 0, Disconnect},
        {"wait", "TIME", "wait, e.g. 500ms or 3s", 1, 1, Wait},
        {"echo", "TEXT", "print the text", 0, kMany, Echo},
        {"help", "", "this list", 0, 0, Help},
        {"quit", "", "end the session", 0, 0, Quit},
    };
    return commands;
}

std::string CommandsHelp() {
    std::string text;
    for (const Command& command : Commands()) {
        std::string line = std::string(command.name) + " " + command.arguments;
        line.resize(std::max<std::size_t>(line.size() + 1, 32), ' ');
        text += line + command.help + "\n";
    }
    return text +
           "figures to check                blocks bytes rate gaps dropped, since the device was\n"
           "                                opened; of the daq: packets rate badsums dropped;\n"
           "                                rate is per second; OP: < <= = >= >; N: a whole "
           "number\n"
           "expect OUTCOME COMMAND          fails unless COMMAND ends so: done, refused [CODE],\n"
           "                                timeout, lost, violation, unconnected\n"
           "try COMMAND                     goes on when COMMAND fails\n"
           "repeat TIME|N .. end            does the commands in between again and again; one "
           "after try\n"
           "                                that loses the link ends the round\n"
           "# begins a comment; \"...\" keeps blanks in a word.\n"
           "IDs are decimal or 0x..; HEX is two digits a byte, blanks between bytes are fine.";
}

}  // namespace vexahost::tool
