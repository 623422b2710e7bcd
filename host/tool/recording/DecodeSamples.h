// Turns a recording into samples, as fast as it can be read and in bounded memory.
#pragma once

#include <string>
#include <vector>

#include "tool/Exit.h"
#include "tool/stream/Formats.h"
#include "tool/stream/StreamOutput.h"

namespace vexahost::tool {

struct DecodeSamplesOptions {
    std::string file;
    std::vector<std::string> devices;  // none: all
    FormatOptions formats;
    OutputOptions output;
};

ExitCode DecodeSamples(const DecodeSamplesOptions& options);

}  // namespace vexahost::tool
