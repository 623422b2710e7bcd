#include "page/Messages.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
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

// Discarded when `text` is no JSON, or nested deeper than anything here: what is deeper would be
// taken apart recursively.
Json Parsed(std::string_view text) {
    constexpr int kDeepest = 16;
    const auto isShallow = [](int depth, Json::parse_event_t, Json&) {
        if (depth > kDeepest) throw Wrong{};
        return true;
    };
    try {
        return Json::parse(text, isShallow, false);
    } catch (const Wrong&) {
        return Json::value_t::discarded;
    }
}

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

// An application's answer to a command of the service.
Happening AnswerWords(const std::string& application, int command, int response) {
    static constexpr const char* kWords[] = {"to take the hardware", "to give the hardware up",
                                             "whether it has the hardware",
                                             "to note that the host has the hardware"};
    constexpr int kQuery = 3;
    const bool isKnown = command >= 1 && command <= 4;
    const std::string asked =
        application + " is asked " +
        (isKnown ? kWords[command - 1] : "for command " + std::to_string(command)) + ": ";
    if (response < 0) return {asked + "no answer", true};
    if (command == kQuery) return {asked + (response == 1 ? "yes" : "no"), false};
    if (response == 1) return {asked + "done", false};
    return {asked + "answers " + std::to_string(response), true};
}

std::optional<Happening> CallWords(const Json& event) {
    const std::string call = event.at("call");
    const std::string target = event.value("for", "");
    const bool isDone = event.at("result") != 0;
    if (event.contains("faults"))
        return Happening{"fault: " + event.at("line").get<std::string>(), true};
    if (call == "VEXA_Init") return Happening{"the service begins", false};
    if (call == "VEXA_Uninit") return Happening{"the service ends", false};
    if (call == "VEXA_Device_Stream_Open") {
        return isDone ? Happening{target + " is opened", false}
                      : Happening{target + " cannot be opened", true};
    }
    if (call == "VEXA_Device_Stream_Close") {
        return Happening{target + " is closed", false};
    }
    return std::nullopt;
}

// What a person wants to know of an event; most calls of a library are not.
std::optional<Happening> WordsOf(const Json& event) {
    const std::string kind = event.value("event", "");
    if (kind == "call") return CallWords(event);
    if (kind == "cable") {
        return Happening{event.at("in") ? "a host is connected" : "no host is connected", false};
    }
    if (kind == "answer") {
        return AnswerWords(event.at("application"), event.at("command"), event.at("response"));
    }
    if (kind == "change") {
        std::string words = "change: " + event.at("request").value("request", "");
        for (const auto& [key, value] : event.at("request").items()) {
            if (key == "request") continue;
            words += key == "name" ? " " : ", " + key + " ";
            words += value.is_string() ? value.get<std::string>() : value.dump();
        }
        return Happening{words, false};
    }
    return event.value("ok", false) ? std::optional(Happening{"the unit is there", false})
                                    : std::nullopt;
}

template <typename Number>
void Append(std::vector<std::uint8_t>& bytes, Number number) {
    const auto raw = std::bit_cast<std::array<std::uint8_t, sizeof number>>(number);
    bytes.insert(bytes.end(), raw.begin(), raw.end());
}

}  // namespace

Expected<ViewerRequest> ParseRequest(std::string_view text) {
    try {
        const Json json = Parsed(text);
        if (json.is_discarded()) throw Wrong{"this is not JSON, or nested too deep"};
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
                      std::size_t viewers, std::string_view recordingFailure) {
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
        {"recording", recordingFailure},
        {"devices", std::move(devices)}};
    if (!attached.empty()) {
        Json unit = Parsed(attached);
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
        Json body = Parsed(json);
        if (!body.is_discarded()) answer["body"] = std::move(body);
    }
    return Dump(answer);
}

std::string DroppedText(std::uint64_t frames) {
    return Dump({{"type", "dropped"}, {"frames", frames}});
}

std::string TimelineText(std::span<const TimelineEntry> entries) {
    Json lines = Json::array();
    for (const TimelineEntry& entry : entries) {
        lines.push_back({entry.number, entry.time, entry.text, entry.isProblem, entry.times});
    }
    return Dump({{"type", "timeline"}, {"lines", std::move(lines)}});
}

std::optional<Happening> HappeningOf(std::string_view line) {
    if (line.empty()) return Happening{"the unit has ended", true};
    const Json event = Parsed(line);
    if (!event.is_object()) return std::nullopt;
    try {
        return WordsOf(event);
    } catch (const Json::exception&) {  // from a unit of another version
        return Happening{std::string(line), false};
    }
}

void SamplesMessage::Clear() {
    constexpr std::uint32_t kSamples = 1;
    bytes.clear();
    pieces = 0;
    Append(bytes, kSamples);
    Append(bytes, pieces);
}

void SamplesMessage::Add(const ChannelSamples& samples) {
    static_assert(std::endian::native == std::endian::little);
    constexpr std::uint32_t kAfterGap = 0x80000000;
    constexpr std::size_t kPiecesOffset = 4;
    const std::size_t count = samples.values.size();
    Append(bytes, samples.channel);
    Append(bytes, static_cast<std::uint32_t>(count) | (samples.afterGap ? kAfterGap : 0));
    Append(bytes, samples.first);
    Append(bytes, samples.step);
    std::size_t at = bytes.size();
    bytes.resize(at + (count + count % 2) * sizeof(float));
    for (const double value : samples.values) {
        const auto small = static_cast<float>(value);
        std::memcpy(bytes.data() + at, &small, sizeof small);
        at += sizeof small;
    }
    ++pieces;
    std::memcpy(bytes.data() + kPiecesOffset, &pieces, sizeof pieces);
}

}  // namespace vexahost::page
