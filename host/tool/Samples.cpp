#include "tool/Samples.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kReportSize = 8;
constexpr std::uint8_t kReportKindMask = 0xC0;
constexpr std::uint8_t kReportInitRequest = 0x40;
constexpr std::uint8_t kReportInitResponse = 0x80;

const DeviceFormats& VirtualUnit() {
    static const DeviceFormats formats = DeviceFormats::BuiltIn();
    return formats;
}

}  // namespace

std::vector<double> SamplesOf(std::span<const std::uint8_t> block) {
    std::vector<double> values;
    const auto* const format = VirtualUnit().Find("", block);
    if (format != nullptr) format->channels[0].Decode(block, values);
    return values;
}

std::string DescribeBlock(std::span<const std::uint8_t> block, const DeviceFormats& formats,
                          const std::string& device) {
    const DeviceFormat* const format = formats.Find(device, block);
    if (format == nullptr || !format->HasSamples(block)) return HexText(block);
    std::string samples;
    for (const ChannelFormat& channel : format->channels) {
        std::vector<double> values;
        channel.Decode(block, values);
        if (values.empty()) continue;
        if (!samples.empty()) samples += ',';
        if (format->channels.size() > 1) samples += ' ' + channel.name;
        for (const double value : values) AppendValue(samples += ' ', value);
    }
    if (samples.empty()) return HexText(block);
    const auto seconds = format->TimeOf(block);
    if (!seconds) return samples.substr(1);
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s:", *seconds);
    return text + samples;
}

std::string DescribeBlock(std::span<const std::uint8_t> block) {
    return DescribeBlock(block, VirtualUnit(), "");
}

std::vector<std::uint8_t> HidInitRequest() {
    std::vector<std::uint8_t> request(kReportSize);
    request[0] = kReportInitRequest;
    return request;
}

bool IsHidInitResponse(std::span<const std::uint8_t> block) {
    return block.size() == kReportSize && (block[0] & kReportKindMask) == kReportInitResponse;
}

void AppendValue(std::string& text, double value) {
    std::array<char, 32> digits;
    char* const end = digits.data() + digits.size();
    // Most are whole, which is written several times as fast. to_chars may write larger ones with
    // an exponent, and it writes the sign of a zero.
    constexpr double kMostWhole = 1e5;
    const bool isSmall = value > -kMostWhole && value < kMostWhole;
    const auto whole = static_cast<std::int32_t>(isSmall ? value : 0);
    const bool isWhole = isSmall && whole != 0 && static_cast<double>(whole) == value;
    const auto written = isWhole ? std::to_chars(digits.data(), end, whole)
                                 : std::to_chars(digits.data(), end, value);
    text.append(digits.data(), written.ptr);
}

}  // namespace vexahost::tool
