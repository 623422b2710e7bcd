#include "Session.h"

#include <algorithm>

#include "../Duration.h"
#include "../Interrupt.h"
#include "../Number.h"

using vexahost::ChildId;
using vexahost::Client;
using vexahost::ErrorKind;
using vexahost::Expected;

const std::vector<Session::Verb>& Session::Verbs() {
    constexpr std::size_t kMany = 1000;
    static const std::vector<Verb> verbs = {
        {"sync", "", "bring both sides in step", 0, 0, &Session::Sync},
        {"controller", "[daq]", "open the controller, with the DAQ if asked; closes all else", 0, 1,
         &Session::Controller},
        {"query", "[holds|free]", "does the DAQ application hold the hardware? must it?", 0, 1,
         &Session::Query},
        {"takeover", "", "take the hardware from the unit's applications", 0, 0,
         &Session::Takeover},
        {"open", "NAME [ID]", "open the first device of the type that NAME stands for", 1, 2,
         &Session::Open},
        {"close", "ID|NAME|controller", "close a device, or the controller with all devices", 1, 1,
         &Session::Close},
        {"arm", "ID|NAME", "send a HID sensor its init request", 1, 1, &Session::Arm},
        {"send", "ID|NAME HEX", "send bytes to a device, at most 247", 2, kMany, &Session::Send},
        {"raw", "HEX", "send bytes as they are", 1, kMany, &Session::Raw},
        {"mux", "COMMAND [HEX]", "send a multiplexer command; the DAQ acknowledges it", 1, kMany,
         &Session::Mux},
        {"receive", "ID|NAME|daq [N] [TIME]", "show the next N blocks (1), each within TIME (3s)",
         1, 3, &Session::Receive},
        {"stats", "", "what has come of each device since it was opened", 0, 0, &Session::Stats},
        {"check", "ID|NAME|daq FIGURE OP N", "pass only if the figure (below) is so", 4, 4,
         &Session::Check},
        {"reconnect", "[TIME]", "connect anew, trying for TIME (5s); nothing is open then", 0, 1,
         &Session::Reconnect},
        {"disconnect", "", "end the connection", 0, 0, &Session::Disconnect},
        {"wait", "TIME", "let time pass, e.g. 500ms or 3s", 1, 1, &Session::Wait},
        {"echo", "TEXT", "print the text", 0, kMany, &Session::Echo},
        {"help", "", "this list", 0, 0, &Session::Help},
        {"quit", "", "end the session", 0, 0, &Session::Quit},
    };
    return verbs;
}

Expected<std::unique_ptr<Session>> Session::Start(const UnitAddress& unit) {
    constexpr std::chrono::seconds kPatience{5};
    const auto end = Clock::now() + kPatience;
    for (;;) {
        auto client = ConnectAndSync(unit);
        if (client) return std::make_unique<Session>(std::move(*client));
        const ErrorKind kind = client.Failure().kind;
        const bool isLink = kind == ErrorKind::kLinkLost || kind == ErrorKind::kProtocolViolation;
        if (!isLink || Clock::now() >= end || IsInterrupted()) return client.Failure();
    }
}

Session::Session(std::unique_ptr<Client> connected)
    : client(std::move(connected)), collector(*client) {}

Outcome Session::Run(const Words& words) {
    if (words.empty()) return Outcome::Good();
    if (words.front() == "expect") return RunExpect({words.begin() + 1, words.end()});
    if (words.front() == "try") return RunTry({words.begin() + 1, words.end()});
    const auto verb = std::ranges::find(Verbs(), words.front(), &Verb::name);
    if (verb == Verbs().end()) {
        return Outcome::Wrong("no such command: " + words.front() + " (help lists all)");
    }
    const Words arguments(words.begin() + 1, words.end());
    if (arguments.size() < verb->least || arguments.size() > verb->most) {
        return Outcome::Wrong(std::string("usage: ") + verb->name + " " + verb->arguments);
    }
    return (this->*verb->run)(arguments);
}

Outcome Session::RunExpect(Words words) {
    const auto expected = TakeExpectedOutcome(words);
    if (!expected || words.empty()) {
        return Outcome::Wrong(
            "usage: expect done|refused [CODE]|timeout|lost|violation|unconnected COMMAND");
    }
    Outcome outcome = Run(words);
    if (expected->IsMetBy(outcome)) return Outcome::Good();
    if (outcome.error && outcome.error->kind == ErrorKind::kInvalidArgument) return outcome;
    return Outcome::Unmet("it ended otherwise: " +
                          (outcome.error ? outcome.error->message : "done"));
}

Outcome Session::RunTry(const Words& words) {
    Outcome outcome = Run(words);
    if (!outcome.error || outcome.error->kind == ErrorKind::kInvalidArgument) return outcome;
    Outcome tried = Outcome::Good("(" + outcome.error->message + ")");
    tried.skipsRound = outcome.error->kind == ErrorKind::kLinkLost ||
                       outcome.error->kind == ErrorKind::kProtocolViolation;
    return tried;
}

std::vector<std::string> Session::OpenNames() const {
    std::vector<std::string> names;
    for (const Device& device : devices) names.push_back(device.name);
    return names;
}

std::vector<std::string> Session::CommandNames() {
    std::vector<std::string> names = {"expect", "try"};
    for (const Verb& verb : Verbs()) names.emplace_back(verb.name);
    return names;
}

std::string Session::HelpText() {
    std::string text;
    for (const Verb& verb : Verbs()) {
        std::string line = std::string(verb.name) + " " + verb.arguments;
        line.resize(std::max<std::size_t>(line.size() + 1, 32), ' ');
        text += line + verb.help + "\n";
    }
    return text +
           "figures to check                blocks bytes rate gaps dropped, since the device was\n"
           "                                opened; of the daq: packets rate badsums dropped;\n"
           "                                rate is a second's; OP: < <= = >= >; N: a whole "
           "number\n"
           "expect OUTCOME COMMAND          passes only if COMMAND ends so: done, refused [CODE],\n"
           "                                timeout, lost, violation, unconnected\n"
           "try COMMAND                     its failure is no failure\n"
           "In scripts also: repeat TIME|N .. end, where a tried command that has lost the link\n"
           "ends the round; # begins a comment; \"...\" keeps blanks in a word.\n"
           "IDs are decimal or 0x..; HEX is two digits a byte, blanks between bytes are fine.";
}

void Session::ForgetAll() {
    devices.clear();
    collector.Clear();
}

std::optional<ChildId> Session::FindId(const std::string& text) const {
    const auto found = std::ranges::find(devices.rbegin(), devices.rend(), text, &Device::name);
    if (found != devices.rend()) return found->id;
    return ParseNumber<ChildId>(text);
}

ChildId Session::FreeId() const {
    ChildId id = kFirstDeviceId;
    while (std::ranges::find(devices, id, &Device::id) != devices.end()) ++id;
    return id;
}
