#include "model/HidSensor.h"

#include <algorithm>

#include "protocol/Packet.h"

namespace vexa::unit {

namespace {
constexpr std::size_t kReportTypeOffset = 1;
constexpr std::size_t kReportSampleOffset = 2;
constexpr std::size_t kReportTimeOffset = 4;

constexpr std::uint8_t kReportKindMask = 0xC0;  // top bits of byte 0
constexpr std::uint8_t kInitRequest = 0x40;
constexpr std::uint8_t kInitAnswer = 0x80;
}  // namespace

HidSensor::HidSensor(const DeviceSettings& settings, TimePoint opened)
    : PacedDevice(opened, kHidReportSize, settings.rate, settings.waveform),
      type(static_cast<std::uint8_t>(settings.type)),
      echo(settings.echo) {
    StartBlocks(opened);
}

void HidSensor::Take(std::span<const std::uint8_t> written, TimePoint now) {
    if (written.empty()) return;
    std::vector<std::uint8_t> report(kHidReportSize);
    std::ranges::copy(written.first(std::min(written.size(), report.size())), report.begin());
    if ((report[0] & kReportKindMask) == kInitRequest) {
        report[0] = kInitAnswer;
        report[kReportTypeOffset] = type;
    } else if (!echo) {
        return;
    }
    Answer(std::move(report), now);
}

void HidSensor::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    block[0] = static_cast<std::uint8_t>(counter++ & ~kReportKindMask);
    block[kReportTypeOffset] = type;
    Wave().Fill(block.subspan(kReportSampleOffset, kReportTimeOffset - kReportSampleOffset));
    StoreLe32(block, kReportTimeOffset, milliseconds);
}

}  // namespace vexa::unit
