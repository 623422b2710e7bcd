#include "tool/Samples.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdio>

#include "tool/Parse.h"
#include "vexahost/Describe.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kTimeOffset = 4;
constexpr std::size_t kSamplesOffset = 8;
constexpr std::size_t kReportSize = 8;
constexpr std::size_t kReportSampleOffset = 2;
constexpr std::uint8_t kReportKindMask = 0xC0;
constexpr std::uint8_t kReportMeasurement = 0x00;
constexpr std::uint8_t kReportInitRequest = 0x40;
constexpr std::uint8_t kReportInitResponse = 0x80;

std::int16_t LoadSample(const std::uint8_t* bytes) {
    return static_cast<std::int16_t>(bytes[0] | bytes[1] << 8);
}

bool IsMeasurementPacket(std::span<const std::uint8_t> block) {
    return block.size() >= kSamplesOffset + sizeof(std::int16_t) &&
           block.size() <= vexa::kMaxPacketSize && block[vexa::kTypeOffset] == vexa::kClassDaq &&
           block[vexa::kLengthOffset] == block.size() && vexa::HasRightChecksum(block);
}

}  // namespace

std::optional<Samples> DecodeSamples(std::span<const std::uint8_t> block) {
    if (IsMeasurementPacket(block)) {
        Samples samples{vexa::LoadLe32(block, kTimeOffset), {}};
        for (std::size_t at = kSamplesOffset; at + 1 < block.size(); at += 2) {
            samples.values.push_back(LoadSample(block.data() + at));
        }
        return samples;
    }
    if (block.size() == kReportSize && (block[0] & kReportKindMask) == kReportMeasurement) {
        return Samples{vexa::LoadLe32(block, kTimeOffset),
                       {LoadSample(block.data() + kReportSampleOffset)}};
    }
    return std::nullopt;
}

std::string DescribeBlock(std::span<const std::uint8_t> block) {
    const auto samples = DecodeSamples(block);
    if (!samples) return HexText(block);
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s:", samples->milliseconds / 1000.0);
    std::string line = text;
    for (const std::int16_t value : samples->values) line += ' ' + std::to_string(value);
    return line;
}

std::vector<std::uint8_t> HidInitRequest() {
    std::vector<std::uint8_t> request(kReportSize);
    request[0] = kReportInitRequest;
    return request;
}

bool IsHidInitResponse(std::span<const std::uint8_t> block) {
    return block.size() == kReportSize && (block[0] & kReportKindMask) == kReportInitResponse;
}

namespace {

constexpr std::size_t kMostBytes = 255;  // no block is longer

Error Wrong(const std::string& text, const std::string& why) {
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

struct TypeName {
    const char* name;
    std::size_t size;
    SampleType type;
    bool bigEndian;
};

constexpr TypeName kTypes[] = {
    {"u8", 1, SampleType::kUnsigned, false},    {"i8", 1, SampleType::kSigned, false},
    {"u16le", 2, SampleType::kUnsigned, false}, {"u16be", 2, SampleType::kUnsigned, true},
    {"i16le", 2, SampleType::kSigned, false},   {"i16be", 2, SampleType::kSigned, true},
    {"u32le", 4, SampleType::kUnsigned, false}, {"u32be", 4, SampleType::kUnsigned, true},
    {"i32le", 4, SampleType::kSigned, false},   {"i32be", 4, SampleType::kSigned, true},
    {"f32le", 4, SampleType::kFloat, false},    {"f32be", 4, SampleType::kFloat, true},
    {"f64le", 8, SampleType::kFloat, false},    {"f64be", 8, SampleType::kFloat, true},
};

// The number that a person would write for a 32-bit float: 0.1, not 0.10000000149.
double AsWritten(float value) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    double result = value;
    if (error == std::errc{}) std::from_chars(text.data(), end, result);
    return result;
}

double DecodeSample(const SampleFormat& format, std::span<const std::uint8_t> bytes) {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bits = bits << 8U | bytes[format.bigEndian ? i : bytes.size() - 1 - i];
    }
    switch (format.type) {
        case SampleType::kUnsigned:
            return static_cast<double>(bits);
        case SampleType::kSigned: {
            const std::size_t above = 64 - 8 * bytes.size();
            return static_cast<double>(static_cast<std::int64_t>(bits << above) >> above);
        }
        case SampleType::kFloat:
            return bytes.size() == sizeof(double)
                       ? std::bit_cast<double>(bits)
                       : AsWritten(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    }
    return 0;
}

std::optional<Reading> ReadUnitsOwn(std::span<const std::uint8_t> block) {
    const auto samples = DecodeSamples(block);
    if (!samples) return std::nullopt;
    Reading reading{samples->milliseconds / 1000.0, {{"value", {}}}};
    reading.channels[0].values.assign(samples->values.begin(), samples->values.end());
    return reading;
}

}  // namespace

Expected<SampleFormat> ParseSampleFormat(const std::string& text) {
    SampleFormat format{};
    std::string rest = text;
    if (const auto device = CutOff(rest, ':')) {
        if (device->empty()) return Wrong(text, "the device's name in front of \":\" is empty");
        format.device = *device;
    }
    if (const auto channel = CutOff(rest, '=')) {
        if (channel->empty()) return Wrong(text, "the channel's name in front of \"=\" is empty");
        format.channel = *channel;
    }
    const auto typeName = CutOff(rest, '@');
    if (!typeName) return Wrong(text, "expected [NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]");
    const auto* const type = std::ranges::find(kTypes, std::string_view(*typeName),
                                               [](const TypeName& entry) { return entry.name; });
    if (type == std::end(kTypes)) {
        return Wrong(text, "\"" + *typeName + "\" is no type: u8 i8, or u16 i16 u32 i32 f32 f64 " +
                               "with le or be at the end");
    }
    const auto offsetText = CutOff(rest, 'x');
    const auto offset = ParseNumber<std::size_t>(offsetText ? *offsetText : rest);
    const auto count = offsetText ? ParseNumber<std::size_t>(rest) : std::optional<std::size_t>{1};
    if (!offset || *offset >= kMostBytes) return Wrong(text, "the offset is not 0 to 254");
    if (!count || *count == 0 || *count > kMostBytes)
        return Wrong(text, "the count is not 1 to 255");
    if (format.channel.empty()) format.channel = *typeName + "@" + std::to_string(*offset);
    format.type = type->type;
    format.size = type->size;
    format.bigEndian = type->bigEndian;
    format.offset = *offset;
    format.count = *count;
    return format;
}

std::vector<double> DecodeChannel(const SampleFormat& format, std::span<const std::uint8_t> block) {
    std::vector<double> values;
    for (std::size_t at = format.offset;
         values.size() < format.count && at + format.size <= block.size(); at += format.size) {
        values.push_back(DecodeSample(format, block.subspan(at, format.size)));
    }
    return values;
}

std::optional<Reading> ReadBlock(std::span<const SampleFormat> formats, std::string_view device,
                                 std::span<const std::uint8_t> block) {
    Reading reading;
    bool isForDevice = false;
    for (const SampleFormat& format : formats) {
        if (!format.device.empty() && format.device != device) continue;
        isForDevice = true;
        auto values = DecodeChannel(format, block);
        if (!values.empty()) reading.channels.push_back({format.channel, std::move(values)});
    }
    if (!isForDevice) return ReadUnitsOwn(block);
    if (reading.channels.empty()) return std::nullopt;
    return reading;
}

std::string ValueText(double value) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} ? std::string(text.data(), end) : "?";
}

}  // namespace vexahost::tool
