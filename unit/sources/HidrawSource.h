// A HID device as a source: reports of 8 bytes both ways.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "sources/Source.h"

namespace vexa::unit {

// Reports come up as they are; shorter ones are filled up with zeros, longer ones are refused with
// a line that names their size. What is written goes down as an output report: byte 0 is its number
// where the device numbers its reports.
[[nodiscard]] std::unique_ptr<Source> MakeHidrawSource(const SourceSettings& settings);

// Whether a report descriptor numbers its reports.
[[nodiscard]] bool NumbersReports(std::span<const std::uint8_t> descriptor);

}  // namespace vexa::unit
