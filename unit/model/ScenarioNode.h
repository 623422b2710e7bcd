// One value of a scenario file together with its path in the file, so that every complaint names
// the place. For ScenarioFile only.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vexa::unit {

// Thrown on the first thing that is wrong; the text is "path: what was expected".
class ScenarioComplaint : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The Read... functions leave `into` as it is when the key is absent, and complain about anything
// that is not as asked for. `value_` must outlive the node.
class ScenarioNode {
  public:
    ScenarioNode(const nlohmann::json& value_, std::string path_)
        : value(value_), path(std::move(path_)) {}

    // Complains unless this is an object that has no keys but these.
    void RequireKeys(std::initializer_list<std::string_view> keys) const;

    [[nodiscard]] bool Has(std::string_view key) const;
    [[nodiscard]] ScenarioNode Member(std::string_view key) const;

    void ReadBool(std::string_view key, bool& into) const;
    void ReadUnsigned(std::string_view key, std::uint32_t least, std::uint32_t most,
                      std::uint32_t& into) const;
    void ReadRate(std::string_view key, double& into) const;
    // A name of 1 to kMaxDeviceName bytes without a zero byte; `required`: may not be absent.
    void ReadName(std::string_view key, bool required, std::string& into) const;

    // This value itself.
    [[nodiscard]] std::uint32_t Unsigned(std::uint32_t least, std::uint32_t most) const;
    [[nodiscard]] std::int32_t Signed32() const;
    [[nodiscard]] std::string Text(std::string_view expected) const;

    // Calls `visit` for each element of this array, or each key and value of this object.
    void EachElement(const std::function<void(const ScenarioNode&)>& visit) const;
    void EachMember(
        const std::function<void(const std::string& key, const ScenarioNode&)>& visit) const;

    // Complains that this value is not what was expected.
    [[noreturn]] void Complain(std::string_view expected) const;

  private:
    [[nodiscard]] std::string PathOf(std::string_view key) const;

    const nlohmann::json& value;
    std::string path;
};

}  // namespace vexa::unit
