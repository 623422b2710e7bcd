// A JSON value from a user, together with its path in the text, so that every error names the
// place.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::unit {

using Json = nlohmann::ordered_json;

// The first thing that is wrong, as "path: what was expected".
class JsonError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Every function throws JsonError when the value is not as requested. The JSON value must outlive
// this object.
class CheckedJson {
  public:
    CheckedJson(const Json& value_, std::string path_) : value(value_), path(std::move(path_)) {}

    // This value, of the type in question.
    [[nodiscard]] bool Bool() const;
    [[nodiscard]] std::uint32_t Unsigned(std::uint32_t least, std::uint32_t most) const;
    [[nodiscard]] std::int32_t Signed32() const;
    [[nodiscard]] double Rate() const;  // 0 to kMaxRate
    // More than 0, and at most `most`.
    [[nodiscard]] double Number(double most) const;
    // 1 byte or more, none of them zero; `expected` describes it in the error.
    [[nodiscard]] std::string String(std::string_view expected) const;
    // 1 to kMaxDeviceName bytes without a zero byte.
    [[nodiscard]] std::string Name() const;
    // `expected` describes the text in the error.
    [[nodiscard]] std::string Text(std::string_view expected) const;
    // The index of this value in `words`.
    [[nodiscard]] std::size_t Choice(const std::vector<std::string_view>& words) const;

    // A time such as "500ms" or "5s", in ms.
    [[nodiscard]] std::uint32_t DurationMs(std::uint32_t least) const;

    // This value as an object: it must have no keys but these.
    void RequireKeys(const std::vector<std::string_view>& keys) const;
    [[nodiscard]] bool Has(std::string_view key) const;
    // The member `key`, which must exist.
    [[nodiscard]] CheckedJson Member(std::string_view key) const;

    // Calls `visit` for each element of this list, or each member of this object.
    void EachElement(const std::function<void(const CheckedJson&)>& visit) const;
    void EachMember(
        const std::function<void(const std::string& key, const CheckedJson&)>& visit) const;

    // Throws: this value is not what was expected.
    [[noreturn]] void Complain(std::string_view expected) const;
    // Throws: `what` is wrong with the member `key`.
    [[noreturn]] void ComplainAbout(std::string_view key, const std::string& what) const;

    [[nodiscard]] const Json& Value() const { return value; }
    [[nodiscard]] const std::string& Path() const { return path; }

  private:
    [[nodiscard]] std::string PathOf(std::string_view key) const;

    const Json& value;
    std::string path;
};

// A time of at most 24h such as "500ms" or "5s", in ms; nothing when `text` is none.
[[nodiscard]] std::optional<std::uint32_t> ParseDurationMs(const std::string& text);

// `text` as JSON. Throws JsonError, with line and column, when it is not valid; also when it is
// nested too deeply or gives a key twice.
[[nodiscard]] Json ParseJson(const std::string& text);
// The same; nothing when it is not valid.
[[nodiscard]] std::optional<Json> ValidJson(const std::string& text);

// `json` on one line, with every byte that is not UTF-8 replaced.
[[nodiscard]] std::string ToLine(const Json& json);

}  // namespace vexa::unit
