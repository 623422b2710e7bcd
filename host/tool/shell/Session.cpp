#include "tool/shell/Session.h"

#include <algorithm>

#include "tool/Exit.h"
#include "tool/Parse.h"
#include "tool/Samples.h"

namespace vexahost::tool {

namespace {

struct OutcomeName {
    const char* name;
    std::optional<ErrorKind> kind;
};

constexpr OutcomeName kNames[] = {
    {"done", std::nullopt},
    {"refused", ErrorKind::kRefused},
    {"timeout", ErrorKind::kTimeout},
    {"lost", ErrorKind::kLinkLost},
    {"violation", ErrorKind::kProtocolViolation},
    {"unconnected", ErrorKind::kCannotConnect},
};

// An outcome that "expect" knows.
struct ExpectedOutcome {
    std::optional<ErrorKind> kind;  // nothing: success
    std::optional<int> code;        // of a refusal; nothing: any

    [[nodiscard]] bool IsMetBy(const Outcome& outcome) const {
        if (!outcome.error || !kind) return !outcome.error && !kind;
        if (outcome.error->kind != *kind) return false;
        // A check that does not hold is no refusal by the unit: it has no code.
        if (*kind == ErrorKind::kRefused && outcome.error->code == 0) return false;
        return !code || outcome.error->code == *code;
    }
};

// Reads "done", "refused [CODE]", "timeout", "lost", "violation" or "unconnected" and removes it
// from the front of `words`. Nothing when they begin with none of these.
std::optional<ExpectedOutcome> TakeExpectedOutcome(Words& words) {
    if (words.empty()) return std::nullopt;
    const auto* const found =
        std::ranges::find(kNames, std::string_view(words.front()),
                          [](const OutcomeName& entry) { return entry.name; });
    if (found == std::end(kNames)) return std::nullopt;
    words.erase(words.begin());
    ExpectedOutcome expected{found->kind, std::nullopt};
    if (found->kind == ErrorKind::kRefused && !words.empty()) {
        expected.code = ParseNumber<int>(words.front());
        if (expected.code) words.erase(words.begin());
    }
    return expected;
}

}  // namespace

std::optional<Words> SplitLine(std::string_view line) {
    Words words;
    bool inWord = false;
    bool inQuotes = false;
    for (const char c : line) {
        const bool isBlank = c == ' ' || c == '\t' || c == '\r';
        if (c == '#' && !inWord) break;
        if (isBlank && !inQuotes) {
            inWord = false;
            continue;
        }
        if (!inWord) words.emplace_back();
        inWord = true;
        if (c == '"') {
            inQuotes = !inQuotes;
        } else {
            words.back() += c;
        }
    }
    if (inQuotes) return std::nullopt;
    return words;
}

Expected<std::unique_ptr<Session>> Session::Start(const UnitAddress& unit, DeviceFormats formats) {
    constexpr std::chrono::seconds kPatience{5};
    constexpr std::chrono::milliseconds kRetryPause{100};
    constexpr std::size_t kKept = 20000;  // blocks of each device, for "receive"
    const auto end = Clock::now() + kPatience;
    for (;;) {
        auto client = ConnectAndSync(unit, {.queueCapacity = kKept});
        if (client) {
            return std::make_unique<Session>(std::move(*client), unit, std::move(formats));
        }
        const ErrorKind kind = client.error().kind;
        const bool isLink = kind == ErrorKind::kLinkLost || kind == ErrorKind::kProtocolViolation;
        if (!isLink || Clock::now() >= end || IsInterrupted()) return client.error();
        WaitInterruptibly(Clock::now() + kRetryPause);
    }
}

Outcome Session::Run(const Words& words) {
    if (words.empty()) return Outcome::Good();
    if (words.front() == "expect") return RunExpect({words.begin() + 1, words.end()});
    if (words.front() == "try") return RunTry({words.begin() + 1, words.end()});
    const auto command = std::ranges::find(Commands(), words.front(), &Command::name);
    if (command == Commands().end()) {
        return Outcome::Wrong("no such command: " + words.front() + " (help lists all)");
    }
    const Words arguments(words.begin() + 1, words.end());
    if (arguments.size() < command->least || arguments.size() > command->most) {
        return Outcome::Wrong(std::string("usage: ") + command->name + " " + command->arguments);
    }
    return command->run(*this, arguments);
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
    return Outcome::Unmet("unexpected outcome: " +
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

std::string Session::Describe(std::optional<ChildId> id, const Block& block) const {
    const auto device = std::ranges::find(devices, id, &Device::id);
    const std::string named = device == devices.end() ? "" : device->name;
    return DescribeBlock(block.bytes, formats, id ? named : "DAQ");
}

void Session::ForgetAll() {
    devices.clear();
    while (client->ReceiveDaq(Milliseconds{0})) {
    }
    daqSince = Clock::now();
    before = client->Statistics();
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

}  // namespace vexahost::tool
