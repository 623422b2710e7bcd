#include "model/WaveSource.h"

#include <cmath>
#include <numbers>

namespace vexa::unit {

std::int16_t WaveSource::NextNoise() {
    noise_ ^= noise_ << 13U;
    noise_ ^= noise_ >> 17U;
    noise_ ^= noise_ << 5U;
    constexpr std::uint32_t kValues = 2 * kWavePeak + 1;
    return static_cast<std::int16_t>(static_cast<std::int32_t>(noise_ % kValues) - kWavePeak);
}

std::int16_t WaveSource::NextSample() {
    const int phase = phase_;
    phase_ = (phase_ + 1) % kWavePeriod;
    switch (waveform_) {
        case Waveform::kSine:
            return static_cast<std::int16_t>(
                std::lround(kWavePeak * std::sin(2 * std::numbers::pi * phase / kWavePeriod)));
        case Waveform::kRamp:
            return static_cast<std::int16_t>(-kWavePeak + phase * 2 * kWavePeak / kWavePeriod);
        case Waveform::kSquare:
            return phase < kWavePeriod / 2 ? kWavePeak : static_cast<std::int16_t>(-kWavePeak);
        case Waveform::kNoise:
            return NextNoise();
    }
    return 0;
}

void WaveSource::Fill(std::span<std::uint8_t> bytes) {
    for (; bytes.size() >= 2; bytes = bytes.subspan(2)) {
        const auto sample = static_cast<std::uint16_t>(NextSample());
        bytes[0] = static_cast<std::uint8_t>(sample);
        bytes[1] = static_cast<std::uint8_t>(sample >> 8U);
    }
    if (!bytes.empty()) bytes[0] = 0;
}

}  // namespace vexa::unit
