#include "run/ControlCommand.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "model/UnitEnvironment.h"
#include "run/AnswerText.h"
#include "run/ControlClient.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int kRefusedStatus = 1;

// A value as typed: JSON, or else text. A name may look like JSON and is none.
json ValueOf(const std::string& key, const std::string& text) {
    if (key == "for") return text;
    json value = json::parse(text, nullptr, false);
    return value.is_discarded() ? json(text) : value;
}

json RequestOf(const ControlRequest& request) {
    json members = json::object();
    for (const auto& setting : request.settings) {
        const auto sign = setting.find('=');
        if (sign == 0 || sign == std::string::npos) {
            throw UserError("expected KEY=VALUE, not " + setting);
        }
        const std::string key = setting.substr(0, sign);
        members[key] = ValueOf(key, setting.substr(sign + 1));
    }
    json made = members;
    if (!request.inside.empty()) made = {{request.inside, std::move(members)}};
    for (const auto& [key, text] : request.texts) made[key] = text;
    made["request"] = request.verb;
    return made;
}

ordered_json ParseAnswer(const std::string& line) {
    auto answer = ordered_json::parse(line, nullptr, false);
    if (!answer.is_object()) throw UserError("the unit's answer is no JSON object: " + line);
    return answer;
}

bool IsGood(const ordered_json& answer) { return answer.value("ok", false); }

int SendRaw(ControlClient& unit, const std::string& raw) {
    int status = 0;
    const auto send = [&](const std::string& line) {
        const std::string answer = unit.Ask(line);
        std::printf("%s\n", answer.c_str());
        std::fflush(stdout);
        if (!IsGood(ParseAnswer(answer))) status = kRefusedStatus;
    };
    if (raw != "-") {
        send(raw);
        return status;
    }
    for (std::string line; std::getline(std::cin, line);) {
        if (!line.empty()) send(line);
    }
    return status;
}

}  // namespace

std::string DefaultUnitFolder() {
    const char* const folder = std::getenv(kFolderVariable);
    return folder != nullptr && *folder != '\0' ? folder : "build/unit";
}

int ControlUnit(const ControlOptions& options) {
    const json request = options.raw.empty() ? RequestOf(options.request) : json();
    ControlClient unit(options.folder);
    if (!options.raw.empty()) return SendRaw(unit, options.raw);

    const std::string line =
        unit.Ask(request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    const auto answer = ParseAnswer(line);
    if (options.json) {
        std::printf("%s\n", line.c_str());
    } else if (IsGood(answer)) {
        std::fputs(AnswerText(answer).c_str(), stdout);
    } else {
        std::fprintf(stderr, "vexa-unit: %s\n", answer.value("error", "refused").c_str());
    }
    return IsGood(answer) ? 0 : kRefusedStatus;
}

}  // namespace vexa::unit
