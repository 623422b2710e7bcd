// A byte-stream sensor: packets of samples, and echoes.
#pragma once

#include "model/PacedDevice.h"
#include "model/Scenario.h"

namespace vexa::unit {

class StreamSensor : public PacedDevice {
  public:
    StreamSensor(const DeviceSettings& settings, TimePoint opened);

    void Take(std::span<const std::uint8_t> written, TimePoint now) override;

  private:
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;

    const bool echo;
    std::uint8_t counter = 0;
};

}  // namespace vexa::unit
