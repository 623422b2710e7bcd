// The only file that uses the JSON library.
#include "tool/JsonObject.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace vexahost::tool {

namespace {

std::string Written(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string WrittenNumber(double value) {
    constexpr double kMostWhole = 9007199254740992.0;  // 2^53: larger doubles skip whole numbers
    const bool isWhole = std::trunc(value) == value && std::fabs(value) < kMostWhole;
    return isWhole ? std::to_string(static_cast<std::int64_t>(value)) : Written(value);
}

}  // namespace

JsonObject& JsonObject::AddText(std::string_view name, std::string_view value) {
    if (!entries.empty()) entries += ',';
    entries += Written(std::string(name)) + ':';
    entries += value;
    return *this;
}

JsonObject& JsonObject::AddDouble(std::string_view name, double value) {
    return AddText(name, Written(value));
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view value) {
    return AddText(name, Written(std::string(value)));
}

JsonObject& JsonObject::Add(std::string_view name, std::span<const double> values) {
    std::string list;
    for (const double value : values) {
        list += list.empty() ? '[' : ',';
        list += WrittenNumber(value);
    }
    if (list.empty()) list = '[';
    return AddText(name, list += ']');
}

JsonObject& JsonObject::Add(std::string_view name, const std::vector<std::string>& values) {
    return AddText(name, Written(values));
}

void JsonObject::PrintLine() const { std::printf("{%s}\n", entries.c_str()); }

std::vector<VirtualDevice> AttachedDevices(const std::string& state) {
    std::vector<VirtualDevice> devices;
    try {
        const auto whole = nlohmann::json::parse(state);
        for (const auto& device : whole.at("devices")) {
            if (!device.at("attached").get<bool>()) continue;
            devices.push_back(
                {device.at("name").get<std::string>(), device.at("type").get<std::uint64_t>()});
        }
    } catch (const nlohmann::json::exception&) {
        devices.clear();
    }
    return devices;
}

}  // namespace vexahost::tool
