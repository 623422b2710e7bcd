// One value of a JSON text that a user wrote, together with its path in the text, so that every
// complaint names the place.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexa::unit {

// Thrown on the first thing that is wrong; the text is "path: what was expected".
class JsonComplaint : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The Read... functions leave `into` as it is when the key is absent, and complain about anything
// that is not as asked for. `value_` must outlive the node.
class CheckedJson {
  public:
    CheckedJson(const nlohmann::json& value_, std::string path_)
        : value(value_), path(std::move(path_)) {}

    // Complains unless this is an object that has no keys but these.
    void RequireKeys(std::initializer_list<std::string_view> keys) const;

    [[nodiscard]] bool Has(std::string_view key) const;
    [[nodiscard]] CheckedJson Member(std::string_view key) const;
    // Complains when it is missing.
    [[nodiscard]] CheckedJson Required(std::string_view key) const;

    void ReadBool(std::string_view key, bool& into) const;
    void ReadUnsigned(std::string_view key, std::uint32_t least, std::uint32_t most,
                      std::uint32_t& into) const;
    void ReadRate(std::string_view key, double& into) const;
    // A name of 1 to kMaxDeviceName bytes without a zero byte; `required`: may not be absent.
    void ReadName(std::string_view key, bool required, std::string& into) const;

    // One of a few words.
    template <typename Value>
    void ReadChoice(std::string_view key,
                    std::span<const std::pair<std::string_view, Value>> choices,
                    Value& into) const {
        if (!Has(key)) return;
        std::vector<std::string_view> words;
        words.reserve(choices.size());
        for (const auto& choice : choices) words.push_back(choice.first);
        into = choices[Member(key).Choice(words)].second;
    }

    // This value itself.
    [[nodiscard]] std::uint32_t Unsigned(std::uint32_t least, std::uint32_t most) const;
    [[nodiscard]] std::int32_t Signed32() const;
    [[nodiscard]] std::string Text(std::string_view expected) const;
    // The number of the word among `words` that this is.
    [[nodiscard]] std::size_t Choice(const std::vector<std::string_view>& words) const;

    // Calls `visit` for each element of this array, or each key and value of this object.
    void EachElement(const std::function<void(const CheckedJson&)>& visit) const;
    void EachMember(
        const std::function<void(const std::string& key, const CheckedJson&)>& visit) const;

    // Complains that this value is not what was expected.
    [[noreturn]] void Complain(std::string_view expected) const;
    // Complains about the member `key`, in these words.
    [[noreturn]] void ComplainAbout(std::string_view key, const std::string& what) const;

  private:
    [[nodiscard]] std::string PathOf(std::string_view key) const;

    const nlohmann::json& value;
    std::string path;
};

// The word of a table of choices that stands for `value`, which must be one of them.
template <typename Choices, typename Value>
[[nodiscard]] std::string_view NameIn(const Choices& choices, Value value) {
    return std::ranges::find(choices, value, [](const auto& each) { return each.second; })->first;
}

// `text` as JSON. Throws JsonComplaint, with the place, when it is not valid or nested too deeply.
[[nodiscard]] nlohmann::json ParseJson(const std::string& text);

}  // namespace vexa::unit
