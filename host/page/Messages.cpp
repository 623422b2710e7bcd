#include "page/Messages.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>

namespace vexahost::page {

namespace {

using Json = nlohmann::ordered_json;

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// What is wrong with a request; ParseRequest turns it into an error.
struct Wrong {
    std::string why;
};

std::string TextOf(const Json& json, const char* key) {
    const auto place = json.find(key);
    if (place == json.end()) return "";
    if (!place->is_string()) throw Wrong{std::string("\"") + key + "\" is no text"};
    return place->get<std::string>();
}

bool FlagOf(const Json& json, const char* key, bool otherwise) {
    const auto place = json.find(key);
    if (place == json.end()) return otherwise;
    if (!place->is_boolean()) throw Wrong{std::string("\"") + key + "\" is neither true nor false"};
    return place->get<bool>();
}

std::optional<std::uint64_t> NumberOf(const Json& json, const char* key, std::uint64_t most) {
    const auto place = json.find(key);
    if (place == json.end() || place->is_null()) return std::nullopt;
    if (!place->is_number_unsigned() || place->get<std::uint64_t>() > most) {
        throw Wrong{std::string("\"") + key + "\" is no whole number from 0 to " +
                    std::to_string(most)};
    }
    return place->get<std::uint64_t>();
}

LogFilter FilterOf(const Json& json) {
    LogFilter filter;
    filter.text = TextOf(json, "text");
    for (char& letter : filter.text) {
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    const std::string direction = TextOf(json, "direction");
    if (direction == "to") filter.direction = Direction::kToUnit;
    if (direction == "from") filter.direction = Direction::kFromUnit;
    if (const auto child = NumberOf(json, "child", 0xFFFFFFFF)) {
        filter.child = static_cast<ChildId>(*child);
    }
    filter.errorsOnly = FlagOf(json, "errors", false);
    filter.withData = FlagOf(json, "data", false);
    return filter;
}

std::vector<std::uint8_t> HexOf(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    int digits = 0;
    unsigned value = 0;
    for (const char letter : text) {
        if (letter == ' ') continue;
        const char* const kDigits = "0123456789abcdef";
        const char* const place = std::strchr(kDigits, letter | 0x20);
        if (letter == '\0' || place == nullptr) throw Wrong{"bytes are written in hex"};
        value = value << 4U | static_cast<unsigned>(place - kDigits);
        if (++digits % 2 == 0) bytes.push_back(static_cast<std::uint8_t>(value));
    }
    if (digits == 0 || digits % 2 != 0) throw Wrong{"each byte is two digits"};
    return bytes;
}

Order OrderOf(const std::string& what, const Json& json) {
    static const std::pair<const char*, Order::Kind> kOrders[] = {
        {"open", Order::Kind::kOpen},         {"close", Order::Kind::kClose},
        {"takeOver", Order::Kind::kTakeOver}, {"handBack", Order::Kind::kHandBack},
        {"query", Order::Kind::kQuery},       {"send", Order::Kind::kSend},
        {"arm", Order::Kind::kArm},
    };
    for (const auto& [name, kind] : kOrders) {
        if (what != name) continue;
        Order order{kind, TextOf(json, "name"), 0, {}, {}};
        if (kind == Order::Kind::kOpen && order.name.empty()) throw Wrong{"a name is needed"};
        if (const auto child = NumberOf(json, "child", 0xFFFFFFFF)) {
            order.child = static_cast<ChildId>(*child);
        } else if (kind == Order::Kind::kClose || kind == Order::Kind::kSend ||
                   kind == Order::Kind::kArm) {
            throw Wrong{"a child is needed"};
        }
        if (kind == Order::Kind::kSend) order.bytes = HexOf(TextOf(json, "bytes"));
        return order;
    }
    throw Wrong{"no such request: " + what};
}

ViewerRequest RequestOf(const Json& json) {
    if (!json.is_object()) throw Wrong{"a request is an object"};
    ViewerRequest request;
    request.id = NumberOf(json, "id", UINT64_MAX).value_or(0);
    const std::string what = TextOf(json, "request");
    if (what == "hello") {
        request.token = TextOf(json, "token");
    } else if (what == "filter" || what == "log") {
        request.kind = what == "log" ? ViewerRequest::Kind::kLog : ViewerRequest::Kind::kFilter;
        request.filter = FilterOf(json);
        request.follows = FlagOf(json, "follow", true);
        request.before = NumberOf(json, "before", UINT64_MAX);
        if (const auto at = json.find("at"); at != json.end() && at->is_number()) {
            request.at = at->get<double>();
            if (!(std::fabs(*request.at) < 1e9)) throw Wrong{"\"at\" is out of range"};
        }
    } else if (what == "unit") {
        request.kind = ViewerRequest::Kind::kUnit;
        const auto body = json.find("body");
        if (body == json.end() || !body->is_object()) throw Wrong{"\"body\" is no object"};
        request.unitRequest = Dump(*body);
    } else {
        request.kind = ViewerRequest::Kind::kOrder;
        request.order = OrderOf(what, json);
    }
    return request;
}

double Seconds(CaptureTime time) { return std::chrono::duration<double>(time).count(); }

const char* Name(const std::optional<DaqApplication>& application) {
    if (!application) return "";
    return *application == DaqApplication::kHoldsHardware ? "holds" : "free";
}

template <typename Number>
void Append(std::vector<std::uint8_t>& bytes, Number number) {
    const auto raw = std::bit_cast<std::array<std::uint8_t, sizeof number>>(number);
    bytes.insert(bytes.end(), raw.begin(), raw.end());
}

}  // namespace

Expected<ViewerRequest> ParseRequest(std::string_view text) {
    try {
        constexpr int kDeepest = 16;  // what is deeper would be taken apart recursively
        const auto isShallow = [](int depth, Json::parse_event_t, Json&) {
            if (depth > kDeepest) throw Wrong{"this is nested too deep"};
            return true;
        };
        const Json json = Json::parse(text, isShallow, false);
        if (json.is_discarded()) throw Wrong{"this is not JSON"};
        return RequestOf(json);
    } catch (const Wrong& wrong) {
        return Error{ErrorKind::kInvalidArgument, wrong.why};
    }
}

std::string HelloText(const Hello& hello) {
    return Dump({{"type", "hello"},
                 {"unit", hello.unit},
                 {"version", hello.version},
                 {"control", hello.mayControl},
                 {"virtual", hello.isVirtual},
                 {"saves", hello.canSave},
                 {"start", hello.startSeconds}});
}

std::string StateText(const UnitState& state, std::string_view attached, double now,
                      std::size_t viewers) {
    Json devices = Json::array();
    for (const WatchedDevice& device : state.devices) {
        Json channels = Json::array();
        for (const Channel& channel : device.channels) {
            channels.push_back(
                {{"id", channel.number}, {"name", channel.name}, {"unit", channel.unit}});
        }
        devices.push_back({{"child", device.child},
                           {"name", device.name},
                           {"open", device.isOpen},
                           {"problem", device.problem},
                           {"rate", device.rate ? Json(*device.rate) : Json(nullptr)},
                           {"blocks", device.statistics.blocks},
                           {"bytes", device.statistics.bytes},
                           {"gaps", device.statistics.sequenceGaps},
                           {"dropped", device.statistics.dropped},
                           {"channels", std::move(channels)}});
    }
    Json json = {
        {"type", "state"},
        {"now", now},
        {"link", state.link == LinkState::kUp ? "up" : "down"},
        {"why", state.why},
        {"losses", state.losses},
        {"daq", state.daqTaken ? "taken" : Name(state.application)},
        {"roundTrip", state.roundTripSeconds ? Json(*state.roundTripSeconds) : Json()},
        {"bytes", state.bytesReceived},
        {"resynchronised", state.statistics.resynchronisations},
        {"wrongChecksums", state.statistics.wrongChecksums + state.statistics.daqWrongChecksums},
        {"viewers", viewers},
        {"devices", std::move(devices)}};
    if (!attached.empty()) {
        Json unit = Json::parse(attached, nullptr, false);
        if (!unit.is_discarded()) json["unit"] = std::move(unit);
    }
    return Dump(json);
}

std::string PacketsText(const LogPage& page, CaptureTime start,
                        std::optional<std::uint64_t> answered) {
    Json lines = Json::array();
    for (const LogPage::Line& line : page.lines) {
        const LoggedPacket& packet = line.packet;
        const std::size_t head = std::min<std::size_t>(packet.size, LoggedPacket::kHead);
        std::string hex = HexText(std::span(packet.head).first(head));
        if (packet.size > head) hex += " ..";
        lines.push_back({line.number, Seconds(packet.time - start),
                         packet.kind == PacketKind::kEvent        ? ""
                         : packet.direction == Direction::kToUnit ? "to"
                                                                  : "from",
                         packet.child ? Json(*packet.child) : Json(nullptr), *packet.text, hex,
                         packet.isError});
    }
    Json json = {{"type", "packets"}, {"skipped", page.skipped}, {"lines", std::move(lines)}};
    if (answered) json["id"] = *answered;
    return Dump(json);
}

std::string AnswerText(std::uint64_t id, std::string_view problem, std::string_view json) {
    Json answer = {{"type", "answer"}, {"id", id}, {"problem", problem}};
    if (!json.empty()) {
        Json body = Json::parse(json, nullptr, false);
        if (!body.is_discarded()) answer["body"] = std::move(body);
    }
    return Dump(answer);
}

std::string DroppedText(std::uint64_t frames) {
    return Dump({{"type", "dropped"}, {"frames", frames}});
}

std::string MetricsText(const UnitState& state, std::size_t viewers, std::uint64_t droppedFrames) {
    std::string text;
    const auto number = [](double value) {
        return std::isnan(value) ? std::string("NaN") : Json(value).dump();
    };
    const auto family = [&text](const std::string& name, const char* type, const char* help) {
        text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    };
    const auto single = [&](const std::string& name, const char* type, const char* help,
                            double value) {
        family(name, type, help);
        text += name + ' ' + number(value) + '\n';
    };
    single("vexa_link_up", "gauge", "1 while the unit is connected",
           state.link == LinkState::kUp ? 1 : 0);
    single("vexa_link_losses_total", "counter", "Times that the link was lost",
           static_cast<double>(state.losses));
    single("vexa_daq_taken", "gauge", "1 while this host has the acquisition hardware",
           state.daqTaken ? 1 : 0);
    single("vexa_round_trip_seconds", "gauge", "Of the newest request that the unit answered",
           state.roundTripSeconds.value_or(NAN));
    single("vexa_received_bytes_total", "counter", "From devices and the DAQ",
           static_cast<double>(state.bytesReceived));
    single("vexa_resynchronisations_total", "counter", "Times that the unit had cut packets",
           static_cast<double>(state.statistics.resynchronisations));
    single("vexa_viewers", "gauge", "Pages that look", static_cast<double>(viewers));
    single("vexa_viewer_dropped_frames_total", "counter",
           "Sample frames that viewers were too slow for", static_cast<double>(droppedFrames));
    const auto each = [&](const std::string& name, const char* type, const char* help,
                          const std::function<double(const WatchedDevice&)>& value) {
        family(name, type, help);
        for (const WatchedDevice& device : state.devices) {
            text += name + "{device=" + Json(device.name).dump() + ",child=\"" +
                    std::to_string(device.child) + "\"} " + number(value(device)) + '\n';
        }
    };
    each("vexa_device_blocks_total", "counter", "Blocks of the device",
         [](const auto& device) { return static_cast<double>(device.statistics.blocks); });
    each("vexa_device_gaps_total", "counter", "Gaps in the sequence numbers",
         [](const auto& device) { return static_cast<double>(device.statistics.sequenceGaps); });
    each("vexa_device_dropped_total", "counter", "Blocks that were dropped from a full queue",
         [](const auto& device) { return static_cast<double>(device.statistics.dropped); });
    each("vexa_device_samples_per_second", "gauge", "Measured rate of a channel",
         [](const auto& device) { return device.rate.value_or(0); });
    return text;
}

std::vector<std::uint8_t> SamplesMessage(std::span<const ChannelSamples> samples) {
    static_assert(std::endian::native == std::endian::little);
    constexpr std::uint32_t kSamples = 1;
    constexpr std::uint32_t kAfterGap = 0x80000000;
    std::size_t size = 8;
    for (const ChannelSamples& piece : samples) size += 28 + piece.values.size() * sizeof(float);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(size);
    Append(bytes, kSamples);
    Append(bytes, static_cast<std::uint32_t>(samples.size()));
    for (const ChannelSamples& piece : samples) {
        Append(bytes, piece.channel);
        Append(bytes,
               static_cast<std::uint32_t>(piece.values.size()) | (piece.afterGap ? kAfterGap : 0));
        Append(bytes, piece.first);
        Append(bytes, piece.step);
        const auto* const values = reinterpret_cast<const std::uint8_t*>(piece.values.data());
        bytes.insert(bytes.end(), values, values + piece.values.size() * sizeof(float));
        if (piece.values.size() % 2 != 0) Append(bytes, 0.0F);
    }
    return bytes;
}

}  // namespace vexahost::page
