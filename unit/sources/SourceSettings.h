// Where a device's data comes from when it is not simulated, as a scenario says it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::unit {

enum class Parity { kNone, kEven, kOdd };
enum class FlowControl { kNone, kHardware, kSoftware };

// One of the first four is given; the others go with some of them.
struct SourceSettings {
    std::string iio;     // name, label or id of an IIO device
    std::string hidraw;  // VENDOR:PRODUCT[:SERIAL], or a path
    std::string serial;  // path of a serial line
    std::string file;    // path of a .csv or .pcapng file

    std::vector<std::string> channels;  // empty: all
    double rate = 0;                    // samples of each channel per second; 0: as it is
    std::string trigger;                // empty: as it is
    bool scaled = false;                // 32-bit floats in place of counts

    std::uint32_t baud = 115200;
    Parity parity = Parity::kNone;
    FlowControl flow = FlowControl::kNone;
    std::uint32_t gapMs = 20;  // a pause that ends a block
    std::string delimiter;     // ends a block; empty: none does

    std::string child;  // the device of a recording; empty: the one of the same name
    bool repeat = false;
    double speed = 1;

    bool operator==(const SourceSettings&) const = default;
};

// Whether serial lines have this rate.
[[nodiscard]] bool IsBaudRate(std::uint32_t baud);

// How the source is called in messages: its kind and what it names.
[[nodiscard]] std::string NameOf(const SourceSettings& source);

}  // namespace vexa::unit
