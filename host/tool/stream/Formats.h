// The options that say where samples stand: --devices and --format.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tool/CommandLine.h"
#include "vexahost/SampleFormat.h"

namespace vexahost::tool {

struct FormatOptions {
    std::string deviceFile;  // empty: the one of the configuration folder, if there is one
    std::vector<std::string> formats;  // short forms
};

// `options` and after them --devices and --format.
std::vector<Option> WithFormatOptions(FormatOptions& formats, std::vector<Option> options);

// The formats for these devices. One that a --format is for is read by that alone. kInvalidArgument
// when one is for none of them, or the device file is wrong.
Expected<std::shared_ptr<const DeviceFormats>> LoadFormats(const FormatOptions& options,
                                                           const std::vector<std::string>& devices);

// What the help text says of the short form.
extern const char* const kFormatNotes;

}  // namespace vexahost::tool
