// What this machine has that a device can be: by the names in /sys and /dev, without opening
// anything. Any thread.
#pragma once

#include <string>
#include <vector>

#include "sources/SourceSettings.h"

namespace vexa::unit {

struct HidrawEntry {
    std::string path;     // /dev/hidraw0
    std::string vendor;   // four digits, in hexadecimal
    std::string product;  // likewise
    std::string name;
    std::string serial;  // may be empty
};
[[nodiscard]] std::vector<HidrawEntry> HidrawEntries();

struct IioEntry {
    std::string id;  // iio:device0
    std::string name;
    std::string label;  // may be empty
};
[[nodiscard]] std::vector<IioEntry> IioEntries();

// Paths of the serial lines that have hardware behind them; with the lasting names of adapters, if
// there are any, in place of /dev/ttyUSB0.
[[nodiscard]] std::vector<std::string> SerialLines();

// The path of the HID device that `wanted` names; empty when there is none.
[[nodiscard]] std::string FindHidraw(const std::string& wanted);

}  // namespace vexa::unit
