// What the virtual unit's sensors and its DAQ send, in words.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The samples in one block of a device.
struct Samples {
    std::uint32_t milliseconds;  // since the device's stream was opened
    std::vector<std::int16_t> values;
};

/// Decodes a measurement packet (type 0xA0; time in bytes 4 to 7, 16-bit samples from byte 8) or a
/// report of 8 bytes (sample in bytes 2 and 3, time in bytes 4 to 7). Nothing for any other block.
std::optional<Samples> DecodeSamples(std::span<const std::uint8_t> block);

/// "1.250 s: 12 -40 77", or the block's bytes when it holds no samples.
std::string DescribeBlock(std::span<const std::uint8_t> block);

/// The request that makes a HID sensor report: until one answer to it has come, the service keeps
/// the sensor's reports to itself.
std::vector<std::uint8_t> HidInitRequest();

/// True for a HID sensor's answer to it.
bool IsHidInitResponse(std::span<const std::uint8_t> block);
