// Prepares a kernel's sensor for a source: its channels, trigger, rate, buffer and format.
#pragma once

#include "sources/IioChannels.h"
#include "sources/Samples.h"
#include "sources/Source.h"

namespace vexa::unit {

struct IioBufferCloser {
    void operator()(iio_buffer* buffer) const { iio_buffer_destroy(buffer); }
};
using IioBuffer = std::unique_ptr<iio_buffer, IioBufferCloser>;

// A sensor that is ready to be read.
struct IioSetup {
    IioContext context;
    iio_device* device = nullptr;
    std::vector<iio_channel*> channels;  // those that are read
    std::vector<double> scales;          // of each of them
    std::vector<double> offsets;
    double rate = 0;  // moments a second
    SampleFormat format = SampleFormat::kInt16;
    iio_channel* timestamp = nullptr;  // of each moment in the buffer; null: there is none
    IioBuffer buffer;                  // null: each value has to be read by itself
};

// The sensor that `settings` describe, of which it says a line to `line`. Throws SourceError.
[[nodiscard]] IioSetup SetUpIio(const SourceSettings& settings, SourceLine& line);

}  // namespace vexa::unit
