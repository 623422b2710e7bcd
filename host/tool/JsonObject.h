// A JSON object, built entry by entry in the order of its text.
#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vexahost::tool {

class JsonObject {
  public:
    // Text that is no valid UTF-8 comes out with replacement characters.
    JsonObject& Add(std::string_view name, std::string_view value);
    JsonObject& Add(std::string_view name, const char* value) {
        return Add(name, std::string_view(value));
    }
    JsonObject& Add(std::string_view name, std::same_as<bool> auto value) {
        return AddText(name, value ? "true" : "false");
    }
    JsonObject& Add(std::string_view name, std::unsigned_integral auto value) requires(
        !std::same_as<decltype(value), bool>) {
        return AddText(name, std::to_string(value));
    }
    JsonObject& Add(std::string_view name, std::same_as<double> auto value) {
        return AddDouble(name, value);
    }
    JsonObject& Add(std::string_view name, const JsonObject& value) {
        return AddText(name, value.Text());
    }

    // An array of numbers; whole ones stand without a fraction.
    JsonObject& Add(std::string_view name, std::span<const double> values);

    // An array of texts.
    JsonObject& Add(std::string_view name, const std::vector<std::string>& values);

    [[nodiscard]] std::string Text() const { return std::string("{").append(entries).append("}"); }

    // Prints the object as one line on standard output.
    void PrintLine() const;

  private:
    JsonObject& AddText(std::string_view name, std::string_view value);
    JsonObject& AddDouble(std::string_view name, double value);

    std::string entries;
};

// A device of a virtual unit.
struct VirtualDevice {
    std::string name;
    std::uint64_t type;
};

// The attached devices in the state that a virtual unit tells (docs/virtual-unit.md), in their
// order; none when it is something else.
std::vector<VirtualDevice> AttachedDevices(const std::string& state);

}  // namespace vexahost::tool
