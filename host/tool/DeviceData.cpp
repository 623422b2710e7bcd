#include "DeviceData.h"

#include <cstdio>

#include "vexahost/Describe.h"
#include "vexahost/protocol/Packet.h"

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
    return block.size() > kSamplesOffset && block.size() <= vexa::kMaxPacketSize &&
           block[vexa::kTypeOffset] == vexa::kClassDaq &&
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
    if (!samples) return vexahost::HexText(block);
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
