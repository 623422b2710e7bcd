// The only file of the library that uses the JSON parser.
#include "vexahost/DeviceFile.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace vexahost {

namespace {

using Json = nlohmann::ordered_json;

// What is wrong, without the file and the device.
struct Fault : std::runtime_error {
    using runtime_error::runtime_error;
};

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

// The keys of an object, each read at most once; those that nobody has asked for are errors.
class Keys {
  public:
    // `where` is put in front of each fault.
    Keys(const Json& object_, std::string where_) : object(object_), where(std::move(where_)) {
        if (!object.is_object()) throw Fault(where + "expected an object");
    }

    const Json* Find(const char* key) {
        known.emplace_back(key);
        const auto found = object.find(key);
        return found == object.end() ? nullptr : &*found;
    }
    const Json& Get(const char* key) {
        const Json* const found = Find(key);
        if (found == nullptr) throw Fault(where + Quoted(key) + " is missing");
        return *found;
    }
    std::string Text(const char* key) { return TextOf(key, Get(key)); }
    std::string Text(const char* key, const std::string& other) {
        const Json* const found = Find(key);
        return found == nullptr ? other : TextOf(key, *found);
    }
    double Number(const char* key, double other) {
        const Json* const found = Find(key);
        if (found == nullptr) return other;
        if (!found->is_number()) Expect(key, "a number");
        return found->get<double>();
    }
    std::size_t Count(const char* key, const Json& value, std::size_t least, std::size_t most) {
        const bool isWhole = value.is_number_unsigned();
        if (!isWhole || value.get<std::uint64_t>() < least || value.get<std::uint64_t>() > most) {
            Expect(key,
                   "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
        }
        return value.get<std::size_t>();
    }
    std::size_t Count(const char* key, std::size_t least, std::size_t most) {
        const Json* const found = Find(key);
        return found == nullptr ? 0 : Count(key, *found, least, most);
    }
    SampleType Type() {
        const std::string text = Text("type");
        const auto type = SampleType::Parse(text);
        if (!type) {
            Expect("type", "u8, i8, or u16 i16 u32 i32 f32 f64 with le or be at the end, not " +
                               Quoted(text));
        }
        return *type;
    }
    [[noreturn]] void Expect(const char* key, const std::string& what) const {
        throw Fault(where + Quoted(key) + ": expected " + what);
    }
    void CheckAllKnown() const {
        for (const auto& [key, value] : object.items()) {
            if (std::find(known.begin(), known.end(), key) == known.end()) {
                throw Fault(where + "no such key: " + Quoted(key));
            }
        }
    }

  private:
    std::string TextOf(const char* key, const Json& value) const {
        if (!value.is_string()) Expect(key, "a text");
        return value.get<std::string>();
    }

    const Json& object;
    const std::string where;
    std::vector<std::string> known;
};

constexpr std::size_t kMostOffset = 254;
constexpr std::size_t kMostCount = 255;

ChannelFormat ReadChannel(const Json& json, std::size_t number) {
    const bool isNamed = json.is_object() && json.contains("name") && json["name"].is_string();
    Keys keys(json, "channel " +
                        (isNamed ? json["name"].get<std::string>() : std::to_string(number + 1)) +
                        ": ");
    ChannelFormat channel;
    channel.name = keys.Text("name");
    if (channel.name.empty()) keys.Expect("name", "a text that is not empty");
    channel.type = keys.Type();
    channel.offset = keys.Count("offset", keys.Get("offset"), 0, kMostOffset);
    channel.stride = keys.Count("stride", 1, kMostCount);
    channel.count = keys.Count("count", 1, kMostCount);
    channel.scale = keys.Number("scale", 1);
    channel.bias = keys.Number("bias", 0);
    channel.unit = keys.Text("unit", "");
    keys.CheckAllKnown();
    return channel;
}

TimeFormat ReadTime(const Json& json) {
    Keys keys(json, "\"time\": ");
    TimeFormat time;
    time.type = keys.Type();
    time.offset = keys.Count("offset", keys.Get("offset"), 0, kMostOffset);
    const std::string unit = keys.Text("unit");
    constexpr std::pair<const char*, double> kUnits[] = {
        {"s", 1}, {"ms", 1e-3}, {"us", 1e-6}, {"ns", 1e-9}};
    const auto* const known = std::find_if(std::begin(kUnits), std::end(kUnits),
                                           [&](const auto& each) { return unit == each.first; });
    if (known == std::end(kUnits)) keys.Expect("unit", "s, ms, us or ns");
    time.tick = known->second;
    keys.CheckAllKnown();
    return time;
}

DeviceFormat ReadDevice(const Json& json) {
    Keys keys(json, "");
    DeviceFormat device;
    const Json& channels = keys.Get("channels");
    if (!channels.is_array() || channels.empty()) {
        keys.Expect("channels", "a list of at least one channel");
    }
    for (const Json& each : channels) {
        auto channel = ReadChannel(each, device.channels.size());
        for (const ChannelFormat& other : device.channels) {
            if (other.name == channel.name) {
                throw Fault("channel " + channel.name + ": there are two of this name");
            }
        }
        device.channels.push_back(std::move(channel));
    }
    if (const double rate = keys.Number("rate", 0); keys.Find("rate") != nullptr) {
        if (!(rate > 0)) keys.Expect("rate", "a number above 0");
        device.rate = rate;
    }
    const std::string check = keys.Text("check", "");
    if (check == "packet") {
        device.check = BlockCheck::kPacket;
    } else if (check == "report") {
        device.check = BlockCheck::kReport;
    } else if (keys.Find("check") != nullptr) {
        keys.Expect("check", "packet or report");
    }
    if (const Json* const time = keys.Find("time")) device.time = ReadTime(*time);
    keys.CheckAllKnown();
    return device;
}

}  // namespace

Expected<DeviceFormats> ParseDeviceFile(std::string_view text, const std::string& name) {
    std::string where = name + ": ";
    try {
        const Json whole = Json::parse(text);
        if (!whole.is_object()) throw Fault("expected an object with a device's format for each");
        DeviceFormats formats;
        for (const auto& [device, json] : whole.items()) {
            if (device == "$schema") continue;
            where = name + ": " + device + ": ";
            formats.Set(device, ReadDevice(json));
        }
        return formats;
    } catch (const Json::parse_error& error) {
        std::size_t line = 1;
        for (const char c : text.substr(0, error.byte)) line += c == '\n' ? 1 : 0;
        return Error{ErrorKind::kInvalidArgument,
                     where + "line " + std::to_string(line) + " is not JSON: " + error.what()};
    } catch (const Json::exception& error) {  // such as a number beyond all that are known
        const std::string what = error.what();
        const std::size_t front = what.find("] ");  // of the parser's own name for it
        return Error{ErrorKind::kInvalidArgument,
                     where + (front == std::string::npos ? what : what.substr(front + 2))};
    } catch (const Fault& fault) {
        return Error{ErrorKind::kInvalidArgument, where + fault.what()};
    }
}

}  // namespace vexahost
