#include "vexahost/SampleFormat.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>

#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

constexpr std::size_t kMostBytes = 255;  // no block is longer
constexpr std::size_t kReportSize = 8;
constexpr std::uint8_t kReportKindMask = 0xC0;  // 0 in reports with a sample

Error WrongFormat(const std::string& text, const std::string& why) {
    return {ErrorKind::kInvalidArgument, "--format " + text + ": " + why};
}

// Removes everything up to the first `mark` from `text` and returns what was before the mark;
// nothing when there is no mark.
std::optional<std::string> CutOff(std::string& text, char mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string::npos) return std::nullopt;
    const std::string front = text.substr(0, at);
    text.erase(0, at + 1);
    return front;
}

// A number from `least` to `most`.
std::optional<std::size_t> ParseCount(std::string_view text, std::size_t least, std::size_t most) {
    std::size_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || rest != end || value < least || value > most) return std::nullopt;
    return value;
}

// The number that a person would write for a 32-bit float.
double AsWritten(float value) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    double result = value;
    if (error == std::errc{}) std::from_chars(text.data(), end, result);
    return result;
}

}  // namespace

std::optional<SampleType> SampleType::Parse(std::string_view text) {
    if (text.empty()) return std::nullopt;
    SampleType type;
    switch (text.front()) {
        case 'u':
            type.kind = Kind::kUnsigned;
            break;
        case 'i':
        case 's':
            type.kind = Kind::kSigned;
            break;
        case 'f':
            type.kind = Kind::kFloat;
            break;
        default:
            return std::nullopt;
    }
    text.remove_prefix(1);
    if (text == "8" && type.kind != Kind::kFloat) return type;
    type.bigEndian = text.ends_with("be");
    if (!type.bigEndian && !text.ends_with("le")) return std::nullopt;
    text.remove_suffix(2);
    const bool isFloat = type.kind == Kind::kFloat;
    if (text == "16" && !isFloat) {
        type.size = 2;
    } else if (text == "32") {
        type.size = 4;
    } else if (text == "64" && isFloat) {
        type.size = 8;
    } else {
        return std::nullopt;
    }
    return type;
}

double SampleType::Load(const std::uint8_t* bytes) const {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < size; ++i) {
        bits = bits << 8U | bytes[bigEndian ? i : size - 1 - i];
    }
    switch (kind) {
        case Kind::kUnsigned:
            return static_cast<double>(bits);
        case Kind::kSigned: {
            const std::size_t above = 64 - 8 * size;
            return static_cast<double>(static_cast<std::int64_t>(bits << above) >> above);
        }
        case Kind::kFloat:
            return size == sizeof(double)
                       ? std::bit_cast<double>(bits)
                       : AsWritten(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    }
    return 0;
}

void ChannelFormat::Decode(std::span<const std::uint8_t> block, std::vector<double>& values) const {
    const std::size_t step = stride != 0 ? stride : type.size;
    std::size_t left = count != 0 ? count : block.size();
    // 1253 of 0.001 are 1.253, which a product with the nearest double misses.
    const double parts = std::round(1 / scale);
    const bool divides = std::fabs(parts) > 1 && scale == 1 / parts;
    for (std::size_t at = offset; left > 0 && at + type.size <= block.size(); at += step, --left) {
        const double number = type.Load(block.data() + at);
        values.push_back(IsPlain() ? number : (divides ? number / parts : number * scale) + bias);
    }
}

double TimeFormat::Wrap() const {
    if (type.kind == SampleType::Kind::kFloat) return 0;
    return std::ldexp(tick, static_cast<int>(8 * type.size));
}

bool DeviceFormat::HasSamples(std::span<const std::uint8_t> block) const {
    switch (check) {
        case BlockCheck::kNone:
            return true;
        case BlockCheck::kPacket:
            return block.size() >= vexa::kPacketHeaderSize &&
                   block.size() <= vexa::kMaxPacketSize &&
                   block[vexa::kTypeOffset] == vexa::kClassDaq &&
                   block[vexa::kLengthOffset] == block.size() && vexa::HasRightChecksum(block);
        case BlockCheck::kReport:
            return block.size() == kReportSize && (block[0] & kReportKindMask) == 0;
    }
    return false;
}

std::optional<double> DeviceFormat::TimeOf(std::span<const std::uint8_t> block) const {
    if (!time || time->offset + time->type.size > block.size()) return std::nullopt;
    const double seconds = time->type.Load(block.data() + time->offset) * time->tick;
    if (!std::isfinite(seconds)) return std::nullopt;
    return seconds;
}

DeviceFormats DeviceFormats::BuiltIn() {
    constexpr SampleType kSample{SampleType::Kind::kSigned, 2, false};
    const TimeFormat time{{SampleType::Kind::kUnsigned, 4, false}, 4, 0.001};
    const DeviceFormat packet{
        {{"value", kSample, 8, 0, 0, 1, 0, ""}}, std::nullopt, BlockCheck::kPacket, time};
    const DeviceFormat report{
        {{"value", kSample, 2, 0, 1, 1, 0, ""}}, std::nullopt, BlockCheck::kReport, time};
    DeviceFormats formats;
    for (const char* name : {"Accelerometer", "Spectrometer", "Microphone", "DAQ"}) {
        formats.entries.emplace_back(name, packet);
    }
    for (const char* name : {"Thermometer", "Barometer", "LightMeter"}) {
        formats.entries.emplace_back(name, report);
    }
    return formats;
}

void DeviceFormats::Set(const std::string& device, DeviceFormat format) {
    const auto known = std::ranges::find(entries, device, &Entry::first);
    if (known != entries.end()) {
        known->second = std::move(format);
    } else {
        entries.emplace_back(device, std::move(format));
    }
}

void DeviceFormats::AddMissing(const DeviceFormats& others) {
    for (const Entry& entry : others.entries) {
        if (std::ranges::find(entries, entry.first, &Entry::first) == entries.end()) {
            entries.push_back(entry);
        }
    }
}

const DeviceFormat* DeviceFormats::Find(std::string_view device,
                                        std::span<const std::uint8_t> block) const {
    const auto own = std::ranges::find(entries, device, &Entry::first);
    if (own != entries.end()) return &own->second;
    const auto guessed = std::ranges::find_if(entries, [&](const Entry& entry) {
        return entry.second.check != BlockCheck::kNone && entry.second.HasSamples(block);
    });
    return guessed != entries.end() ? &guessed->second : nullptr;
}

Expected<std::pair<std::string, ChannelFormat>> ParseChannelFormat(const std::string& text) {
    std::pair<std::string, ChannelFormat> parsed;
    auto& [forDevice, channel] = parsed;
    std::string rest = text;
    if (const auto device = CutOff(rest, ':')) {
        if (device->empty()) {
            return WrongFormat(text, "the device's name in front of \":\" is empty");
        }
        forDevice = *device;
    }
    if (const auto name = CutOff(rest, '=')) {
        if (name->empty()) {
            return WrongFormat(text, "the channel's name in front of \"=\" is empty");
        }
        channel.name = *name;
    }
    const auto typeName = CutOff(rest, '@');
    if (!typeName) return WrongFormat(text, "expected [NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]");
    const auto type = SampleType::Parse(*typeName);
    if (!type) {
        return WrongFormat(text,
                           "\"" + *typeName +
                               "\" is not a type: u8 i8, or u16 i16 u32 i32 f32 f64 with le or "
                               "be at the end");
    }
    const auto offsetText = CutOff(rest, 'x');
    const auto offset = ParseCount(offsetText ? *offsetText : rest, 0, kMostBytes - 1);
    const auto count = offsetText ? ParseCount(rest, 1, kMostBytes) : std::optional<std::size_t>{1};
    if (!offset) return WrongFormat(text, "the offset is not 0 to 254");
    if (!count) return WrongFormat(text, "the count is not 1 to 255");
    if (channel.name.empty()) channel.name = *typeName + "@" + std::to_string(*offset);
    channel.type = *type;
    channel.offset = *offset;
    channel.count = *count;
    return parsed;
}

}  // namespace vexahost
