// Device files: JSON that says once where the samples of devices stand.
//
//   {"Accelerometer": {
//     "channels": [{"name": "x", "type": "i16le", "offset": 8, "stride": 6, "scale": 0.001,
//                   "unit": "g"}],
//     "rate": 100, "check": "packet", "time": {"offset": 4, "type": "u32le", "unit": "ms"}}}
//
// The schema is devices.schema.json. The file of the virtual unit is devices.json; both are in the
// folder of the Python module, which reads the same files.
#pragma once

#include <string>
#include <string_view>

#include "vexahost/Expected.h"
#include "vexahost/SampleFormat.h"

namespace vexahost {

// Reads a device file. kInvalidArgument when it cannot be read or is wrong, with the file, the
// device, the channel and the key; also when the library was built without a JSON parser.
Expected<DeviceFormats> ReadDeviceFile(const std::string& path);

// The same for the text of a file; `name` stands for it in errors.
Expected<DeviceFormats> ParseDeviceFile(std::string_view text, const std::string& name);

// The formats that a host program goes by: those of `path`, or, when that is empty, of
// vexa/devices.json in $XDG_CONFIG_HOME (else in ~/.config) if there is such a file; and those of
// the virtual unit for devices that the file does not name.
Expected<DeviceFormats> LoadDeviceFormats(const std::string& path);

}  // namespace vexahost
