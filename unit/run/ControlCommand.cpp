#include "run/ControlCommand.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "model/CheckedJson.h"
#include "model/UnitSocket.h"
#include "run/ControlClient.h"
#include "run/UserError.h"
#include "testkit/Wait.h"

namespace vexa::unit {

namespace {

// A value as typed: JSON if it is valid, else text. A name is text even if it looks like JSON.
Json ValueOf(const std::string& key, const std::string& text) {
    constexpr std::array<std::string_view, 4> kNames = {"for", "open", "streaming", "closed"};
    if (std::ranges::find(kNames, key) != kNames.end()) return text;
    return ValidJson(text).value_or(text);
}

Json RequestOf(const ControlRequest& request) {
    Json members = Json::object();
    for (const auto& setting : request.settings) {
        const auto sign = setting.find('=');
        if (sign == 0 || sign == std::string::npos) {
            throw UserError("expected KEY=VALUE, not " + setting);
        }
        const std::string key = setting.substr(0, sign);
        if (members.contains(key)) throw UserError(key + " is given twice");
        members[key] = ValueOf(key, setting.substr(sign + 1));
    }
    Json made = members;
    if (!request.inside.empty()) made = {{request.inside, std::move(members)}};
    for (const auto& [key, text] : request.texts) {
        if (made.contains(key)) throw UserError(key + " is given twice");
        made[key] = text;
    }
    made["request"] = request.verb;
    return made;
}

Json ParseAnswer(const std::string& line) {
    auto answer = ValidJson(line);
    if (!answer || !answer->is_object())
        throw UserError("the unit's answer is no JSON object: " + line);
    return *std::move(answer);
}

constexpr std::size_t kNameWidth = 16;

std::string Padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// A value without the quotes of JSON, and whole numbers without a fraction.
std::string Text(const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    std::string text = ToLine(value);
    if (value.is_number_float() && text.ends_with(".0")) text.resize(text.size() - 2);
    return text;
}

// "key value, key value"; for booleans "key" or "not key". Empty lists and objects are left out.
std::string Members(const Json& object, std::initializer_list<std::string_view> without) {
    std::string text;
    for (const auto& [key, value] : object.items()) {
        if (std::ranges::find(without, key) != without.end()) continue;
        if (value.is_structured() && value.empty()) continue;
        if (!text.empty()) text += ", ";
        if (value.is_boolean()) {
            text.append(value.get<bool>() ? "" : "not ").append(key);
        } else {
            text.append(key).append(" ").append(Text(value));
        }
    }
    return text;
}

std::string FaultLine(const Json& fault) {
    return Text(fault["id"]) + "  " + Text(fault["call"]) + " " + Text(fault["action"]) + "  " +
           Members(fault, {"id", "call", "action"}) + "\n";
}

std::string CallLines(const Json& calls, bool unusedToo) {
    std::string text;
    for (const auto& [name, count] : calls.items()) {
        if (count == 0 && !unusedToo) continue;
        text += "  " + Padded(name, 40) + Text(count) + "\n";
    }
    return text;
}

// A heading, and a line for each element of a list of named objects, or each member of an object.
std::string Section(std::string_view heading, const Json& list, const char* nameKey) {
    std::string text = std::string(heading) + "\n";
    for (const auto& [key, item] : list.items()) {
        const std::string name = list.is_array() ? Text(item[nameKey]) : key;
        text += "  " + Padded(name, kNameWidth) + "  " + Members(item, {nameKey}) + "\n";
    }
    return list.empty() ? text + "  none\n" : text;
}

// What a host gets that opens a device by its name, where that is not the device itself.
std::string OpensText(const Json& device) {
    const Json& opens = device["opens"];
    if (opens == device["name"]) return "";
    return opens.is_null() ? "; hosts cannot open it" : "; hosts get " + Text(opens) + " instead";
}

std::string DevicesText(const Json& devices) {
    std::string text = "devices\n";
    for (const auto& device : devices) {
        text += "  " + Padded(Text(device["name"]), kNameWidth) + "  " +
                Members(device, {"name", "opens"}) + OpensText(device) + "\n";
    }
    return devices.empty() ? text + "  none\n" : text;
}

std::string StateText(const Json& state) {
    std::string text = "cable     " + Members(state["cable"], {}) + "\n";
    text += "daq       " + Members(state["daq"], {}) + "\n";
    text += "seed      " + Text(state["seed"]) + "\n";
    text += DevicesText(state["devices"]);
    text += Section("streams", state["streams"], "device");
    text += Section("applications", state["applications"], "name");
    text += "faults\n";
    for (const auto& fault : state["faults"]) text += "  " + FaultLine(fault);
    if (state["faults"].empty()) text += "  none\n";
    return text + "calls\n" + CallLines(state["calls"], false);
}

// A unit's answer for people to read; empty for one that only says that all went well.
std::string AnswerText(const Json& answer) {
    if (answer.contains("devices")) return StateText(answer);
    if (answer.contains("calls")) return CallLines(answer["calls"], true);
    if (answer.contains("id")) return "fault " + Text(answer["id"]) + "\n";
    if (answer.contains("cleared")) return Text(answer["cleared"]) + " cleared\n";
    std::string text;
    if (answer.contains("faults")) {
        for (const auto& fault : answer["faults"]) text += FaultLine(fault);
        if (text.empty()) text = "no faults\n";
    }
    return text;
}

bool IsGood(const Json& answer) { return answer.value("ok", false); }

int StatusOf(const Json& answer) {
    if (IsGood(answer)) return 0;
    return answer.value("timeout", false) ? kTimeoutStatus : kRefusedStatus;
}

// How long the unit may take to answer a request, beyond what it needs.
std::uint32_t WaitMs(const Json& request) {
    if (!request.is_object() || request.value("request", Json()) != "wait") return 0;
    const Json time = request.value("for", Json("10s"));
    return time.is_string() ? ParseDurationMs(time).value_or(0) : 0;
}

// Prints events until the unit ends, or standard output takes no more.
void PrintEvents(ControlClient& unit) {
    while (const auto event = unit.Receive()) {
        std::printf("%s\n", event->c_str());
        if (std::fflush(stdout) != 0) return;
    }
}

int SendRaw(ControlClient& unit, const std::string& raw) {
    int status = 0;
    const auto send = [&](const std::string& line) {
        const std::string answer = unit.Ask(line, WaitMs(ValidJson(line).value_or(nullptr)));
        std::printf("%s\n", answer.c_str());
        std::fflush(stdout);
        if (const int failed = StatusOf(ParseAnswer(answer)); failed != 0) status = failed;
    };
    if (raw != "-") {
        send(raw);
        return status;
    }
    char* line = nullptr;
    std::size_t capacity = 0;
    for (ssize_t size = 0; (size = ::getline(&line, &capacity, stdin)) > 0;) {
        std::string_view text(line, static_cast<std::size_t>(size));
        if (text.ends_with('\n')) text.remove_suffix(1);
        if (!text.empty()) send(std::string(text));
    }
    std::free(line);
    return status;
}

// Waits until there is a unit, or the time is over.
void AwaitUnit(const std::string& folder, std::uint32_t ms) {
    (void)testkit::WaitUntil(testkit::Milliseconds(ms),
                             [&] { return IsListening(ControlSocketPath(folder)); });
}

}  // namespace

std::string DefaultUnitFolder() {
    const char* const folder = std::getenv(kFolderVariable);
    return folder != nullptr && *folder != '\0' ? folder : "build/unit";
}

std::vector<std::string> DeviceNames(const std::string& folder) {
    std::vector<std::string> names;
    try {
        ControlClient unit(folder.empty() ? DefaultUnitFolder() : folder);
        const auto state = ParseAnswer(unit.Ask(ToLine({{"request", "state"}})));
        for (const auto& device : state.at("devices")) names.push_back(device.at("name"));
    } catch (const std::exception&) {
        names.clear();
    }
    return names;
}

int ControlUnit(const ControlOptions& options) {
    const Json request = options.raw.empty() ? RequestOf(options.request) : Json();
    const std::uint32_t waitMs = WaitMs(request);
    AwaitUnit(options.folder, waitMs);
    ControlClient unit(options.folder);
    if (!options.raw.empty()) return SendRaw(unit, options.raw);

    const std::string line = unit.Ask(ToLine(request), waitMs);
    const auto answer = ParseAnswer(line);
    if (options.request.verb == "events" && IsGood(answer)) {
        PrintEvents(unit);
    } else if (options.json) {
        std::printf("%s\n", line.c_str());
    } else if (IsGood(answer)) {
        std::fputs(AnswerText(answer).c_str(), stdout);
    } else {
        std::fprintf(stderr, "vexa-unit: %s\n", answer.value("error", "refused").c_str());
    }
    return StatusOf(answer);
}

}  // namespace vexa::unit
