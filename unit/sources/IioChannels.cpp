#include "sources/IioChannels.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sources/Source.h"

namespace vexa::unit {

IioContext OpenIioContext() {
    IioContext context(iio_create_local_context());
    if (!context) throw SourceError(std::string("IIO cannot be used: ") + std::strerror(errno));
    return context;
}

std::string Text(const char* text) { return text == nullptr ? "" : text; }

std::string NumberText(double number) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%.6g", number);
    return text.data();
}

bool IsOneCount(const iio_data_format& format) {
    return format.length > 0 && format.length <= 64 && format.repeat <= 1;
}

bool IsBuffered(const iio_channel* channel) {
    return !iio_channel_is_output(channel) && iio_channel_is_scan_element(channel) &&
           iio_channel_get_type(channel) != IIO_TIMESTAMP &&
           IsOneCount(*iio_channel_get_data_format(channel));
}
const char* ValueAttribute(const iio_channel* channel) {
    if (iio_channel_is_output(channel)) return nullptr;
    for (const char* name : {"raw", "input"}) {
        if (iio_channel_find_attr(channel, name) != nullptr) return name;
    }
    return nullptr;
}

std::vector<iio_channel*> ChannelsOf(const iio_device* device) {
    std::vector<iio_channel*> buffered;
    std::vector<iio_channel*> readable;
    for (unsigned index = 0; index < iio_device_get_channels_count(device); ++index) {
        iio_channel* const channel = iio_device_get_channel(device, index);
        if (IsBuffered(channel)) buffered.push_back(channel);
        if (ValueAttribute(channel) != nullptr) readable.push_back(channel);
    }
    std::ranges::sort(buffered, {}, iio_channel_get_index);
    return buffered.empty() ? readable : buffered;
}

double Attribute(const iio_channel* channel, const char* name, double otherwise) {
    double value = otherwise;
    const bool read = iio_channel_find_attr(channel, name) != nullptr &&
                      iio_channel_attr_read_double(channel, name, &value) >= 0;
    return read ? value : otherwise;
}

std::string ReadAttribute(const iio_device* device, const char* name) {
    std::array<char, 1024> text{};
    if (iio_device_find_attr(device, name) != nullptr) {
        return iio_device_attr_read(device, name, text.data(), text.size()) > 0 ? text.data() : "";
    }
    for (const iio_channel* channel : ChannelsOf(device)) {
        if (iio_channel_find_attr(channel, name) == nullptr) continue;
        return iio_channel_attr_read(channel, name, text.data(), text.size()) > 0 ? text.data()
                                                                                  : "";
    }
    return "";
}

int WriteAttribute(const iio_device* device, const char* name, const std::string& value) {
    if (iio_device_find_attr(device, name) != nullptr) {
        return static_cast<int>(
            std::min<ssize_t>(iio_device_attr_write(device, name, value.c_str()), 0));
    }
    int result = -ENOENT;
    for (const iio_channel* channel : ChannelsOf(device)) {
        if (iio_channel_find_attr(channel, name) == nullptr) continue;
        result = static_cast<int>(
            std::min<ssize_t>(iio_channel_attr_write(channel, name, value.c_str()), 0));
    }
    return result;
}

std::int64_t CountAt(const iio_channel* channel, const void* place) {
    const iio_data_format& format = *iio_channel_get_data_format(channel);
    std::uint64_t value = 0;  // the first bytes of it, as this machine's order is little-endian
    iio_channel_convert(channel, &value, place);
    const unsigned unused = 64 - format.length;
    if (!format.is_signed) return static_cast<std::int64_t>(value);
    return static_cast<std::int64_t>(value << unused) >> unused;
}

std::string FormatOf(const iio_channel* channel) {
    const iio_data_format& format = *iio_channel_get_data_format(channel);
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%s:%c%u/%u>>%u", format.is_be ? "be" : "le",
                  format.is_signed ? 's' : 'u', format.bits, format.length, format.shift);
    return text.data();
}

}  // namespace vexa::unit
