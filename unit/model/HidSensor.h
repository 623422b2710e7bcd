// A HID sensor: reports of 8 bytes.
//
//   0                  1      2 .. 3           4 .. 7
//  +------------------+------+----------------+--------------+
//  | counter, 6 bits  | type | sample, signed | milliseconds |   little-endian
//  +------------------+------+----------------+--------------+
//
// A write whose first byte has the top bits 01 is the init request; its answer is the one report
// with the top bits 10, followed by the type and bytes 2 to 7 of the request.
#pragma once

#include "model/PacedDevice.h"
#include "model/Scenario.h"

namespace vexa::unit {

class HidSensor : public PacedDevice {
  public:
    HidSensor(const DeviceSettings& settings, TimePoint opened);

    void Take(std::span<const std::uint8_t> written, TimePoint now) override;

  private:
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;

    const std::uint8_t type;
    const bool echo;
    std::uint8_t counter = 0;
};

}  // namespace vexa::unit
