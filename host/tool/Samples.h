// Blocks of devices in words, and what HID sensors are told.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "vexahost/SampleFormat.h"

namespace vexahost::tool {

// The samples of a block as devices of the virtual unit send them; none for any other block.
std::vector<double> SamplesOf(std::span<const std::uint8_t> block);

// "1.250 s: 12 -40 77", of several channels "1.250 s: x 12 -40, y 3 5", or the block's bytes when
// it holds no samples. `device`: its name in `formats`.
std::string DescribeBlock(std::span<const std::uint8_t> block, const DeviceFormats& formats,
                          const std::string& device);

// The same as devices of the virtual unit send it.
std::string DescribeBlock(std::span<const std::uint8_t> block);

// The request that arms a HID sensor: the service drops the sensor's reports until the sensor has
// answered it once.
std::vector<std::uint8_t> HidInitRequest();

// True for a HID sensor's answer to that request.
bool IsHidInitResponse(std::span<const std::uint8_t> block);

// Appends the shortest text that reads back as `value`.
void AppendValue(std::string& text, double value);

}  // namespace vexahost::tool
