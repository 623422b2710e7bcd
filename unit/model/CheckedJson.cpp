#include "model/CheckedJson.h"

#include <algorithm>
#include <limits>

#include "model/Scenario.h"

namespace vexa::unit {

namespace {

constexpr std::size_t kMaxQuotedValue = 60;
constexpr int kMaxDepth = 16;

std::string Quoted(const nlohmann::json& value) {
    auto text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
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
    throw JsonComplaint(place + ": expected " + std::string(expected) + ", not " + Quoted(value));
}

void CheckedJson::ComplainAbout(std::string_view key, const std::string& what) const {
    throw JsonComplaint(PathOf(key) + ": " + what);
}

void CheckedJson::RequireKeys(std::initializer_list<std::string_view> keys) const {
    if (!value.is_object()) Complain("an object");
    for (const auto& item : value.items()) {
        if (std::ranges::find(keys, item.key()) != keys.end()) continue;
        std::string known;
        for (const auto key : keys) known += (known.empty() ? "" : ", ") + std::string(key);
        ComplainAbout(item.key(), "unknown key; expected one of: " + known);
    }
}

bool CheckedJson::Has(std::string_view key) const { return value.contains(key); }

CheckedJson CheckedJson::Member(std::string_view key) const {
    return {*value.find(key), PathOf(key)};
}

CheckedJson CheckedJson::Required(std::string_view key) const {
    if (!Has(key)) ComplainAbout(key, "is missing");
    return Member(key);
}

void CheckedJson::ReadBool(std::string_view key, bool& into) const {
    if (!Has(key)) return;
    const CheckedJson member = Member(key);
    if (!member.value.is_boolean()) member.Complain("true or false");
    into = member.value.get<bool>();
}

void CheckedJson::ReadUnsigned(std::string_view key, std::uint32_t least, std::uint32_t most,
                               std::uint32_t& into) const {
    if (Has(key)) into = Member(key).Unsigned(least, most);
}

void CheckedJson::ReadRate(std::string_view key, double& into) const {
    if (!Has(key)) return;
    const CheckedJson member = Member(key);
    const double rate = member.value.is_number() ? member.value.get<double>() : -1;
    if (rate < 0 || rate > kMaxRate) {
        member.Complain(
            Range("a number per second", "0", std::to_string(static_cast<int>(kMaxRate))));
    }
    into = rate;
}

void CheckedJson::ReadName(std::string_view key, bool required, std::string& into) const {
    const std::string expected = "a name of 1 to " + std::to_string(kMaxDeviceName) + " bytes";
    if (!Has(key)) {
        if (!required) return;
        ComplainAbout(key, "expected " + expected + ", but it is missing");
    }
    const CheckedJson member = Member(key);
    auto name = member.Text(expected);
    if (name.empty() || name.size() > kMaxDeviceName || name.find('\0') != std::string::npos) {
        member.Complain(expected);
    }
    into = std::move(name);
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

nlohmann::json ParseJson(const std::string& text) {
    // To write a deeply nested value down again would take more stack than there is.
    const auto limitDepth = [](int depth, nlohmann::json::parse_event_t, const nlohmann::json&) {
        if (depth > kMaxDepth) throw JsonComplaint("nested too deeply");
        return true;
    };
    try {
        return nlohmann::json::parse(text, limitDepth);
    } catch (const nlohmann::json::exception& error) {
        // The parser's text starts with its name for the error in brackets: nothing to a user.
        const std::string what = error.what();
        const auto end = what.find("] ");
        throw JsonComplaint("not valid JSON: " +
                            (end == std::string::npos ? what : what.substr(end + 2)));
    }
}

}  // namespace vexa::unit
