#include "model/WaveSource.h"

#include <cmath>
#include <numbers>

namespace vexa::unit {

std::int16_t WaveSource::NextNoise() {
    noise ^= noise << 13U;
    noise ^= noise >> 17U;
    noise ^= noise << 5U;
    constexpr std::uint32_t kValues = 2 * kWavePeak + 1;
    return static_cast<std::int16_t>(static_cast<std::int32_t>(noise % kValues) - kWavePeak);
}

std::int16_t WaveSource::NextSample() {
    const int at = phase;
    phase = (phase + 1) % kWavePeriod;
    switch (waveform) {
        case Waveform::kSine:
            return static_cast<std::int16_t>(
                std::lround(kWavePeak * std::sin(2 * std::numbers::pi * at / kWavePeriod)));
        case Waveform::kRamp:
            return static_cast<std::int16_t>(-kWavePeak + at * 2 * kWavePeak / kWavePeriod);
        case Waveform::kSquare:
            return at < kWavePeriod / 2 ? kWavePeak : static_cast<std::int16_t>(-kWavePeak);
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
