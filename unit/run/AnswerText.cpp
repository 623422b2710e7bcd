#include "run/AnswerText.h"

#include <algorithm>
#include <string_view>

namespace vexa::unit {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kNameWidth = 16;

std::string Padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// A value without the quotes of JSON, and whole numbers without a fraction.
std::string Text(const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (value.is_number_float() && text.ends_with(".0")) text.resize(text.size() - 2);
    return text;
}

// "key value, key value", for true "key" and for false "not key"; empty lists and objects say
// nothing.
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

// A heading and a line for each element of a list that has a name, or for each member of an object.
std::string Section(std::string_view heading, const Json& list, const char* nameKey) {
    std::string text = std::string(heading) + "\n";
    for (const auto& [key, item] : list.items()) {
        const std::string name = list.is_array() ? Text(item[nameKey]) : key;
        text += "  " + Padded(name, kNameWidth) + "  " + Members(item, {nameKey}) + "\n";
    }
    return list.empty() ? text + "  none\n" : text;
}

std::string StateText(const Json& state) {
    std::string text = "cable     " + Members(state["cable"], {}) + "\n";
    text += "daq       " + Members(state["daq"], {}) + "\n";
    text += Section("devices", state["devices"], "name");
    text += Section("streams", state["streams"], "device");
    text += Section("applications", state["applications"], "name");
    text += "faults\n";
    for (const auto& fault : state["faults"]) text += "  " + FaultLine(fault);
    if (state["faults"].empty()) text += "  none\n";
    return text + "calls\n" + CallLines(state["calls"], false);
}

}  // namespace

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

}  // namespace vexa::unit
