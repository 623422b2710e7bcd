// Samples as CSV or JSON: the options of every verb that writes them.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tool/CommandLine.h"
#include "tool/stream/StreamSink.h"

namespace vexahost::tool {

struct OutputOptions {
    bool csv = false;
    bool json = false;
    bool wide = false;
    bool tall = false;
    std::string folder;  // empty: standard output
    bool epoch = false;
    bool iso = false;
    bool wav = false;  // of recordings
};

// `options`, and after them those above. `json` says what --json prints.
std::vector<Option> WithOutputOptions(OutputOptions& output, const std::string& json,
                                      std::vector<Option> options);

// kInvalidArgument when so many devices cannot be written in this way.
Expected<Done> CheckOutput(const OutputOptions& output, std::size_t devices);

// --csv or --json, for so many devices, whose times count from `start`.
std::unique_ptr<StreamSink> MakeOutputSink(const OutputOptions& output, const TextTarget& print,
                                           std::chrono::nanoseconds start, std::size_t devices);

// What the help text says of the columns and keys.
extern const char* const kOutputNotes;

}  // namespace vexahost::tool
