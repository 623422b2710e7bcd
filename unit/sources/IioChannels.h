// A kernel's sensor as libiio shows it: its channels, the formats of their samples, and attributes.
#pragma once

#include <iio.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vexa::unit {

struct IioContextCloser {
    void operator()(iio_context* context) const { iio_context_destroy(context); }
};
using IioContext = std::unique_ptr<iio_context, IioContextCloser>;

// All sensors of this machine. Throws SourceError.
[[nodiscard]] IioContext OpenIioContext();

// Null is no text.
[[nodiscard]] std::string Text(const char* text);
[[nodiscard]] std::string NumberText(double number);

// --- channels

// One value of at most 64 bits. Some channels have several, such as a rotation's four.
[[nodiscard]] bool IsOneCount(const iio_data_format& format);
// The channel has a place in the buffer.
[[nodiscard]] bool IsBuffered(const iio_channel* channel);
// The attribute with its value, "raw" or "input"; null when there is none.
[[nodiscard]] const char* ValueAttribute(const iio_channel* channel);
// Those with a place in the buffer, in its order; if there is none, those whose value can be read.
[[nodiscard]] std::vector<iio_channel*> ChannelsOf(const iio_device* device);

// Such as "le:s12/16>>4", as the kernel writes it.
[[nodiscard]] std::string FormatOf(const iio_channel* channel);
// The value of a channel with IsOneCount at its place in the buffer.
[[nodiscard]] std::int64_t CountAt(const iio_channel* channel, const void* place);

// --- attributes

inline constexpr char kIioRates[] = "sampling_frequency_available";

[[nodiscard]] double Attribute(const iio_channel* channel, const char* name, double otherwise);
// A device's attribute, which may be one of its channels instead; empty when there is none.
[[nodiscard]] std::string ReadAttribute(const iio_device* device, const char* name);
// 0, or a negative error number.
[[nodiscard]] int WriteAttribute(const iio_device* device, const char* name,
                                 const std::string& value);

}  // namespace vexa::unit
