// The module behind IioModule.h: sensors through libiio's local context.
#include <iio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "model/Runtime.h"
#include "sources/IioModule.h"
#include "sources/Inventory.h"
#include "sources/Samples.h"

namespace vexa::unit {

namespace {

constexpr char kRate[] = "sampling_frequency";
constexpr char kRates[] = "sampling_frequency_available";
constexpr double kDefaultRate = 10;

struct ContextCloser {
    void operator()(iio_context* context) const { iio_context_destroy(context); }
};
struct BufferCloser {
    void operator()(iio_buffer* buffer) const { iio_buffer_destroy(buffer); }
};
using Context = std::unique_ptr<iio_context, ContextCloser>;
using Buffer = std::unique_ptr<iio_buffer, BufferCloser>;

Context OpenContext() {
    Context context(iio_create_local_context());
    if (!context) throw SourceError(std::string("IIO cannot be used: ") + std::strerror(errno));
    return context;
}

std::string Text(const char* text) { return text == nullptr ? "" : text; }

std::string NumberText(double number) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%.6g", number);
    return text.data();
}

// One value of at most 64 bits. Some channels have several, such as a rotation's four.
bool IsOneCount(const iio_data_format& format) {
    return format.length > 0 && format.length <= 64 && format.repeat <= 1;
}

// What a channel is good for: with a place in the buffer, or with a value that can be read.
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

// A device's attribute, which may be one of its channels instead; empty when there is none.
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

// 0, or a negative error number.
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

// The value of a channel with IsOneCount in a moment of the buffer.
std::int64_t CountAt(const iio_channel* channel, const void* place) {
    const iio_data_format& format = *iio_channel_get_data_format(channel);
    std::uint64_t value = 0;  // the first bytes of it, as this machine's order is little-endian
    iio_channel_convert(channel, &value, place);
    const unsigned unused = 64 - format.length;
    if (!format.is_signed) return static_cast<std::int64_t>(value);
    return static_cast<std::int64_t>(value << unused) >> unused;
}

class IioSource final : public Source {
  public:
    explicit IioSource(const SourceSettings& settings_) : settings(settings_) {}

    void Run(SourceLine& line) override {
        context = OpenContext();
        device = iio_context_find_device(context.get(), settings.iio.c_str());
        if (device == nullptr) throw SourceError("no IIO device " + settings.iio);
        ChooseChannels();
        SetTrigger();
        SetRate(line);
        for (const iio_channel* channel : channels) {
            scales.push_back(Attribute(channel, "scale", 1));
            offsets.push_back(Attribute(channel, "offset", 0));
        }
        const Buffer buffer = OpenBuffer(line);
        hasBuffer = buffer != nullptr;
        ChooseFormat();
        CheckSize();
        Describe(line);
        SampleBlocks blocks(line, format, channels.size(), rate);
        if (buffer) {
            Capture(line, blocks, buffer.get());
        } else {
            ReadEach(line, blocks);
        }
    }

  private:
    void ChooseChannels() {
        const auto all = ChannelsOf(device);
        std::string names;
        for (const iio_channel* channel : all) {
            names += (names.empty() ? "" : ", ") + Text(iio_channel_get_id(channel));
        }
        const auto isCalled = [](const iio_channel* channel, const std::string& name) {
            return name == Text(iio_channel_get_id(channel)) ||
                   name == Text(iio_channel_get_name(channel));
        };
        for (const auto& name : settings.channels) {
            const auto found = std::ranges::find_if(
                all, [&](const iio_channel* channel) { return isCalled(channel, name); });
            if (found != all.end()) {
                channels.push_back(*found);
                continue;
            }
            throw SourceError(settings.iio + " has no channel \"" + name + "\"; there are " +
                              names);
        }
        if (settings.channels.empty()) channels = all;
        if (channels.empty()) throw SourceError(settings.iio + " has no channel that can be read");
        hasBuffer = std::ranges::all_of(channels, IsBuffered);
    }

    void SetTrigger() {
        if (settings.trigger.empty()) return;
        const iio_device* const trigger =
            iio_context_find_device(context.get(), settings.trigger.c_str());
        if (trigger == nullptr || !iio_device_is_trigger(trigger)) {
            std::string names;
            for (unsigned index = 0; index < iio_context_get_devices_count(context.get());
                 ++index) {
                const iio_device* const other = iio_context_get_device(context.get(), index);
                if (!iio_device_is_trigger(other)) continue;
                names += (names.empty() ? "; there are " : ", ") + Text(iio_device_get_name(other));
            }
            throw SourceError("no trigger " + settings.trigger +
                              (names.empty() ? "; there is none" : names));
        }
        const int result = iio_device_set_trigger(device, trigger);
        if (result < 0) Refuse("trigger " + settings.trigger, result);
    }

    [[noreturn]] void Refuse(const std::string& what, int error) const {
        const bool forbidden = error == -EACCES || error == -EPERM;
        throw SourceError(
            settings.iio + ": " + what + " cannot be set: " + std::strerror(-error) +
            (forbidden ? "; only root, or a group that a udev rule names, may write to /sys" : ""));
    }

    // The rate that the hardware has that is nearest to the one that is wanted.
    [[nodiscard]] double NearestRate() const {
        std::string list = ReadAttribute(device, kRates);
        const bool isRange = list.starts_with('[');
        std::erase_if(list, [](char letter) { return letter == '[' || letter == ']'; });
        std::istringstream words(list);
        std::vector<double> rates;
        for (double each = 0; words >> each;) rates.push_back(each);
        if (rates.empty()) return settings.rate;
        const double least = *std::ranges::min_element(rates);
        const double most = isRange ? rates.back() : *std::ranges::max_element(rates);
        if (settings.rate < least || settings.rate > most) {
            throw SourceError(settings.iio + ": rate " + NumberText(settings.rate) +
                              " is out of range (" + NumberText(least) + " to " + NumberText(most) +
                              ")");
        }
        if (isRange) return settings.rate;
        return *std::ranges::min_element(
            rates, {}, [&](double each) { return std::fabs(each - settings.rate); });
    }

    void SetRate(SourceLine& line) {
        const iio_device* timed = device;
        const iio_device* trigger = nullptr;
        // A trigger of its own, such as a timer, may have the rate.
        if (ReadAttribute(device, kRate).empty() && iio_device_get_trigger(device, &trigger) >= 0 &&
            trigger != nullptr && !ReadAttribute(trigger, kRate).empty()) {
            timed = trigger;
        }
        const bool isSet = !ReadAttribute(timed, kRate).empty();
        if (isSet && settings.rate > 0) {
            const double nearest = timed == device ? NearestRate() : settings.rate;
            const int result = WriteAttribute(timed, kRate, NumberText(nearest));
            if (result == -EINVAL || result == -ERANGE) {
                throw SourceError(settings.iio + ": rate " + NumberText(nearest) +
                                  " is out of range");
            }
            if (result < 0) Refuse("the rate", result);
        }
        if (isSet) rate = std::strtod(ReadAttribute(timed, kRate).c_str(), nullptr);
        if (!isSet || rate <= 0) rate = settings.rate > 0 ? settings.rate : kDefaultRate;
        if (settings.rate > 0 && std::fabs(rate - settings.rate) > 1e-3 * settings.rate) {
            line.Tell("samples at a rate of " + NumberText(rate) + ", the nearest to " +
                      NumberText(settings.rate));
        }
    }

    void ChooseFormat() {
        format = SampleFormat::kInt16;
        for (const iio_channel* channel : channels) {
            const iio_data_format* const each = iio_channel_get_data_format(channel);
            const char* const value = ValueAttribute(channel);
            const bool isProcessed =
                !hasBuffer && value != nullptr && std::strcmp(value, "input") == 0;
            if (settings.scaled || isProcessed) {
                format = SampleFormat::kFloat32;
                return;
            }
            // One that has no place in a buffer does not say how wide it is.
            const bool isNarrow = iio_channel_is_scan_element(channel) && each->bits > 0 &&
                                  each->bits <= (each->is_signed ? 16U : 15U);
            if (!isNarrow) format = SampleFormat::kInt32;
        }
    }

    void CheckSize() const {
        if (channels.size() <= SampleBlocks::MaxChannels(format)) return;
        throw SourceError(settings.iio + ": " + std::to_string(channels.size()) +
                          " channels do not fit into a block of " +
                          std::to_string(kMaxSourceBlock) +
                          " bytes; choose some with \"channels\"");
    }

    // Null where each value has to be read by itself.
    [[nodiscard]] Buffer OpenBuffer(SourceLine& line) {
        if (!hasBuffer) return nullptr;
        for (unsigned index = 0; index < iio_device_get_channels_count(device); ++index) {
            iio_channel* const channel = iio_device_get_channel(device, index);
            const bool isTime = iio_channel_get_type(channel) == IIO_TIMESTAMP &&
                                IsOneCount(*iio_channel_get_data_format(channel));
            const bool isWanted = std::ranges::find(channels, channel) != channels.end();
            if (isTime) timestamp = channel;
            if (isTime || isWanted) {
                iio_channel_enable(channel);
            } else {
                iio_channel_disable(channel);
            }
        }
        if (timestamp != nullptr) {
            // Else by the clock that can be set; older kernels have no choice.
            (void)WriteAttribute(device, "current_timestamp_clock", "monotonic");
        }
        // Room for two seconds: nothing is lost while other programs have the processor.
        const auto length = static_cast<std::size_t>(std::clamp(2 * rate, 128.0, 65536.0));
        Buffer buffer(iio_device_create_buffer(device, length, false));
        const int error = errno;
        if (buffer) {
            if (iio_buffer_set_blocking_mode(buffer.get(), false) < 0) {
                throw SourceError(settings.iio + ": its buffer cannot be read without waiting");
            }
            return buffer;
        }
        const bool canRead = std::ranges::all_of(
            channels, [](const iio_channel* each) { return ValueAttribute(each) != nullptr; });
        // That is what the kernel says of a buffer that no trigger fills.
        if (error == EINVAL && settings.trigger.empty() && canRead) {
            line.Tell("its buffer has no trigger: each value is read by itself");
            return nullptr;
        }
        if (error == EBUSY) throw SourceError(settings.iio + ": another program has its buffer");
        throw SourceError(WhyNotOpened("/dev/" + Text(iio_device_get_id(device)), error));
    }

    void Describe(SourceLine& line) const {
        std::string text = settings.iio + ",";
        for (const iio_channel* channel : channels) text += " " + Text(iio_channel_get_id(channel));
        text += format == SampleFormat::kInt16   ? ", 16-bit counts"
                : format == SampleFormat::kInt32 ? ", 32-bit counts"
                                                 : ", 32-bit floats";
        if (format != SampleFormat::kFloat32) text += ", scale " + NumberText(scales.front());
        line.Tell(text + ", rate " + NumberText(rate) +
                  (hasBuffer ? ", buffered" : ", read one by one"));
    }

    void Add(SampleBlocks& blocks, std::size_t index, std::int64_t count) const {
        if (format != SampleFormat::kFloat32) return blocks.AddCount(count);
        const double counts = static_cast<double>(count) + offsets[index];
        blocks.AddFloat(static_cast<float>(counts * scales[index]));
    }

    [[nodiscard]] std::uint32_t Milliseconds() const {
        return static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - opened).count());
    }

    void Capture(SourceLine& line, SampleBlocks& blocks, iio_buffer* buffer) {
        // A block comes a twentieth of a second after its first moment, or with each moment.
        constexpr double kMostMs = 50;
        const int period = static_cast<int>(std::clamp(1000 / rate, 5.0, kMostMs));
        while (!line.IsEnding()) {
            (void)line.TakeWrites();  // a sensor takes none
            (void)line.Wait(-1, 0, period);
            const ssize_t size = iio_buffer_refill(buffer);
            if (size == -EAGAIN || size == -EINTR || size == 0) continue;
            if (size < 0) ThrowGone(static_cast<int>(-size));
            for (std::ptrdiff_t at = 0; at < size; at += iio_buffer_step(buffer)) {
                for (std::size_t index = 0; index < channels.size(); ++index) {
                    Add(blocks, index,
                        CountAt(channels[index], Place(buffer, channels[index], at)));
                }
                blocks.EndMoment(timestamp == nullptr
                                     ? Milliseconds()
                                     : TimeOf(CountAt(timestamp, Place(buffer, timestamp, at))));
            }
        }
    }

    [[nodiscard]] static const void* Place(iio_buffer* buffer, const iio_channel* channel,
                                           std::ptrdiff_t moment) {
        return static_cast<const char*>(iio_buffer_first(buffer, channel)) + moment;
    }

    // The kernel's time of a moment, in ms since the beginning.
    [[nodiscard]] std::uint32_t TimeOf(std::int64_t ns) {
        if (firstTime == 0) {
            firstTime = ns;
            firstMs = Milliseconds();
        }
        return firstMs + static_cast<std::uint32_t>((ns - firstTime) / 1000000);
    }

    [[noreturn]] void ThrowGone(int error) const {
        const bool gone = error == ENODEV || error == ENOENT || error == EBADF;
        throw SourceError(settings.iio +
                          (gone ? " has gone" : std::string(" fails: ") + std::strerror(error)));
    }

    void ReadEach(SourceLine& line, SampleBlocks& blocks) {
        constexpr unsigned kMostFailures = 10;
        unsigned failures = 0;
        TimePoint start = opened;
        for (std::uint64_t moment = 1; !line.IsEnding(); ++moment) {
            const auto due =
                start + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(static_cast<double>(moment) / rate));
            while (!line.IsEnding() && Clock::now() < due) {
                (void)line.TakeWrites();
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
                (void)line.Wait(-1, 0,
                                static_cast<int>(std::min<std::int64_t>(left.count(), 60000)));
            }
            std::vector<double> values;
            int result = 0;
            for (const iio_channel* channel : channels) {
                double value = 0;
                result = iio_channel_attr_read_double(channel, ValueAttribute(channel), &value);
                if (result < 0) break;
                values.push_back(value);
            }
            if (result < 0) {
                if (result == -ENODEV || result == -ENOENT || ++failures == kMostFailures) {
                    ThrowGone(-result);
                }
                continue;  // such as a disturbance on its bus
            }
            failures = 0;
            for (std::size_t index = 0; index < values.size(); ++index) {
                if (std::strcmp(ValueAttribute(channels[index]), "input") == 0) {
                    blocks.AddFloat(static_cast<float>(values[index]));
                } else {
                    Add(blocks, index, std::llround(values[index]));
                }
            }
            blocks.EndMoment(Milliseconds());
            // One that takes longer than that is read as fast as it goes.
            if (Clock::now() > due + std::chrono::seconds(1)) start = Clock::now() - (due - start);
        }
    }

    const SourceSettings settings;
    Context context;
    iio_device* device = nullptr;
    std::vector<iio_channel*> channels;
    bool hasBuffer = false;
    double rate = 0;
    SampleFormat format = SampleFormat::kInt16;
    std::vector<double> scales;
    std::vector<double> offsets;
    iio_channel* timestamp = nullptr;
    const TimePoint opened = Clock::now();
    std::int64_t firstTime = 0;
    std::uint32_t firstMs = 0;
};

std::string FormatOf(const iio_channel* channel) {
    const iio_data_format& format = *iio_channel_get_data_format(channel);
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%s:%c%u/%u>>%u", format.is_be ? "be" : "le",
                  format.is_signed ? 's' : 'u', format.bits, format.length, format.shift);
    return text.data();
}

}  // namespace

extern "C" VEXA_UNIT_EXPORT Source* VexaMakeIioSource(const SourceSettings& settings) {
    return new IioSource(settings);
}

extern "C" VEXA_UNIT_EXPORT void VexaListIioDevices(std::vector<IioDevice>& devices) {
    if (IioEntries().empty()) return;  // libiio would complain of a kernel without them
    const Context context = OpenContext();
    for (unsigned index = 0; index < iio_context_get_devices_count(context.get()); ++index) {
        const iio_device* const device = iio_context_get_device(context.get(), index);
        const std::string id = Text(iio_device_get_id(device));
        if (!id.starts_with("iio:device")) continue;  // hardware monitors are listed, too
        IioDevice entry{id, Text(iio_device_get_name(device)), Text(iio_device_get_label(device)),
                        {}, ReadAttribute(device, kRates),     false};
        for (const iio_channel* channel : ChannelsOf(device)) {
            entry.hasBuffer = IsBuffered(channel);
            entry.channels.push_back({Text(iio_channel_get_id(channel)),
                                      IsBuffered(channel) ? FormatOf(channel) : "",
                                      Attribute(channel, "scale", 1)});
        }
        while (entry.rates.ends_with(' ') || entry.rates.ends_with('\n')) entry.rates.pop_back();
        devices.push_back(std::move(entry));
    }
}

}  // namespace vexa::unit
