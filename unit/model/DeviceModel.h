// What a device does over time, without threads or a clock of its own: it is told what was written
// to it and when, and says what it sends and when that is due.
#pragma once

#include <cstdint>
#include <span>

#include "model/Clock.h"

namespace vexa::unit {

// Not thread-safe: one stream's thread drives it.
class DeviceModel {
  public:
    DeviceModel() = default;
    DeviceModel(const DeviceModel&) = delete;
    DeviceModel& operator=(const DeviceModel&) = delete;
    virtual ~DeviceModel() = default;

    // `written` arrived at the device in one piece.
    virtual void Take(std::span<const std::uint8_t> written, TimePoint now) = 0;

    // When the device sends next; kNever when nothing is due unless more is written.
    [[nodiscard]] virtual TimePoint NextDue() const = 0;

    // The block that is due, or, before anything is, the next block of samples. Valid until the
    // next call.
    [[nodiscard]] virtual std::span<const std::uint8_t> Next(TimePoint now) = 0;
};

}  // namespace vexa::unit
