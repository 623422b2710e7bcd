// Samples of a waveform, one after the other.
#pragma once

#include <cstdint>
#include <span>

#include "model/Scenario.h"

namespace vexa::unit {

inline constexpr int kWavePeriod = 100;           // samples
inline constexpr std::int16_t kWavePeak = 10000;  // largest magnitude of every waveform

// Not thread-safe.
class WaveSource {
  public:
    explicit WaveSource(Waveform waveform_) : waveform(waveform_) {}

    [[nodiscard]] std::int16_t NextSample();

    // Fills `bytes` with samples, 16-bit little-endian; an odd last byte becomes 0.
    void Fill(std::span<std::uint8_t> bytes);

  private:
    [[nodiscard]] std::int16_t NextNoise();

    const Waveform waveform;
    int phase = 0;                     // 0 to kWavePeriod - 1
    std::uint32_t noise = 0x2545F491;  // xorshift state, never 0
};

}  // namespace vexa::unit
