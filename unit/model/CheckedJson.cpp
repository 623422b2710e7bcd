#include "model/CheckedJson.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "model/Scenario.h"

namespace vexa::unit {

namespace {

constexpr std::size_t kMaxQuotedValue = 60;
constexpr int kMaxDepth = 16;

std::string Quoted(const Json& value) {
    std::string text = ToLine(value);
    if (text.size() > kMaxQuotedValue) text = text.substr(0, kMaxQuotedValue) + "...";
    return text;
}

std::string Range(std::string_view kind, const std::string& least, const std::string& most) {
    return std::string(kind) + " from " + least + " to " + most;
}

}  // namespace

std::string CheckedJson::PathOf(std::string_view key) const {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

void CheckedJson::Complain(std::string_view expected) const {
    const std::string place = path.empty() ? "the whole" : path;
    throw JsonError(place + ": expected " + std::string(expected) + ", not " + Quoted(value));
}

void CheckedJson::ComplainAbout(std::string_view key, const std::string& what) const {
    throw JsonError(PathOf(key) + ": " + what);
}

void CheckedJson::RequireKeys(const std::vector<std::string_view>& keys) const {
    if (!value.is_object()) Complain("an object");
    for (const auto& item : value.items()) {
        if (std::ranges::find(keys, item.key()) != keys.end()) continue;
        std::string known;
        for (const auto key : keys) known.append(known.empty() ? "" : ", ").append(key);
        ComplainAbout(item.key(), "unknown key; expected " +
                                      (known.empty() ? "none here" : "one of: " + known));
    }
}

bool CheckedJson::Has(std::string_view key) const { return value.contains(key); }

CheckedJson CheckedJson::Member(std::string_view key) const {
    if (!Has(key)) ComplainAbout(key, "is missing");
    return {*value.find(key), PathOf(key)};
}

bool CheckedJson::Bool() const {
    if (!value.is_boolean()) Complain("true or false");
    return value.get<bool>();
}

double CheckedJson::Rate() const {
    const double rate = value.is_number() ? value.get<double>() : -1;
    if (rate < 0 || rate > kMaxRate) {
        Complain(Range("a number per second", "0", std::to_string(static_cast<int>(kMaxRate))));
    }
    return rate;
}

double CheckedJson::Number(double most) const {
    const double number = value.is_number() ? value.get<double>() : -1;
    if (number <= 0 || number > most) {
        Complain("a number above 0 and up to " + std::to_string(std::llround(most)));
    }
    return number;
}

std::string CheckedJson::String(std::string_view expected) const {
    auto text = Text(expected);
    if (text.empty() || text.find('\0') != std::string::npos) Complain(expected);
    return text;
}

std::string CheckedJson::Name() const {
    const std::string expected = "a name of 1 to " + std::to_string(kMaxDeviceName) + " bytes";
    auto name = Text(expected);
    if (name.empty() || name.size() > kMaxDeviceName || name.find('\0') != std::string::npos) {
        Complain(expected);
    }
    return name;
}

std::uint32_t CheckedJson::Unsigned(std::uint32_t least, std::uint32_t most) const {
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (number >= least && number <= most) return static_cast<std::uint32_t>(number);
    }
    Complain(Range("a whole number", std::to_string(least), std::to_string(most)));
}

std::int32_t CheckedJson::Signed32() const {
    using Limits = std::numeric_limits<std::int32_t>;
    // A large unsigned number would wrap when read as a signed one.
    const bool fits = value.is_number_integer() &&
                      (!value.is_number_unsigned() ||
                       value.get<std::uint64_t>() <= static_cast<std::uint64_t>(Limits::max()));
    if (fits && value.get<std::int64_t>() >= Limits::min()) return value.get<std::int32_t>();
    Complain("a 32-bit whole number");
}

std::string CheckedJson::Text(std::string_view expected) const {
    if (!value.is_string()) Complain(expected);
    return value.get<std::string>();
}

std::uint32_t CheckedJson::DurationMs(std::uint32_t least) const {
    const std::string expected =
        "a time of at most 24h, such as \"500ms\", \"5s\", \"2m\" or \"1h\"";
    const auto ms = ParseDurationMs(Text(expected));
    if (!ms || *ms < least) Complain(expected);
    return *ms;
}

std::size_t CheckedJson::Choice(const std::vector<std::string_view>& words) const {
    std::string expected;
    for (std::size_t index = 0; index < words.size(); ++index) {
        if (index > 0) expected += index + 1 == words.size() ? " or " : ", ";
        expected += '"' + std::string(words[index]) + '"';
    }
    const auto found = std::ranges::find(words, Text(expected));
    if (found == words.end()) Complain(expected);
    return static_cast<std::size_t>(found - words.begin());
}

void CheckedJson::EachElement(const std::function<void(const CheckedJson&)>& visit) const {
    if (!value.is_array()) Complain("a list");
    for (std::size_t index = 0; index < value.size(); ++index) {
        visit({value[index], path + "[" + std::to_string(index) + "]"});
    }
}

void CheckedJson::EachMember(
    const std::function<void(const std::string& key, const CheckedJson&)>& visit) const {
    if (!value.is_object()) Complain("an object");
    for (const auto& item : value.items()) visit(item.key(), {item.value(), PathOf(item.key())});
}

std::optional<std::uint32_t> ParseDurationMs(const std::string& text) {
    constexpr double kMost = 24.0 * 60 * 60 * 1000;
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    const double factor = unit == "ms"                  ? 1
                          : unit == "s" || unit.empty() ? 1000
                          : unit == "m"                 ? 60 * 1000
                          : unit == "h"                 ? 60 * 60 * 1000
                                                        : 0;
    const double ms = number * factor;
    if (error != std::errc() || factor == 0 || !(ms >= 0 && ms <= kMost)) return std::nullopt;
    return static_cast<std::uint32_t>(std::lround(ms));
}

Json ParseJson(const std::string& text) {
    using Event = Json::parse_event_t;
    std::vector<std::set<std::string>> keys;  // of the objects around the place that is read
    const auto check = [&keys](int depth, Event event, const Json& value) {
        // Printing a deeply nested value would overflow the stack.
        if (depth > kMaxDepth) throw JsonError("nested too deeply");
        if (event == Event::object_start) keys.emplace_back();
        if (event == Event::object_end) keys.pop_back();
        // Of two values the parser would drop one.
        if (event == Event::key && !keys.back().insert(value.get<std::string>()).second) {
            throw JsonError("the key " + ToLine(value) + " is given twice");
        }
        return true;
    };
    try {
        return Json::parse(text, check);
    } catch (const Json::exception& error) {
        // The parser's text starts with a code in brackets that means nothing to a user.
        const std::string what = error.what();
        const auto end = what.find("] ");
        throw JsonError("not valid JSON: " +
                        (end == std::string::npos ? what : what.substr(end + 2)));
    }
}

std::optional<Json> ValidJson(const std::string& text) {
    try {
        return ParseJson(text);
    } catch (const JsonError&) {
        return std::nullopt;
    }
}

std::string ToLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vexa::unit
