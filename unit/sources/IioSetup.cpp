#include "sources/IioSetup.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace vexa::unit {

namespace {

constexpr char kRate[] = "sampling_frequency";
constexpr double kDefaultRate = 10;

class Preparation {
  public:
    explicit Preparation(const SourceSettings& settings_) : settings(settings_) {}

    IioSetup Run(SourceLine& line) {
        ready.context = OpenIioContext();
        ready.device = iio_context_find_device(ready.context.get(), settings.iio.c_str());
        if (ready.device == nullptr) throw SourceError("no IIO device " + settings.iio);
        ChooseChannels();
        SetTrigger();
        SetRate(line);
        for (const iio_channel* channel : ready.channels) {
            ready.scales.push_back(Attribute(channel, "scale", 1));
            ready.offsets.push_back(Attribute(channel, "offset", 0));
        }
        ready.buffer = OpenBuffer(line);
        ChooseFormat();
        CheckSize();
        Describe(line);
        return std::move(ready);
    }

  private:
    void ChooseChannels() {
        const auto all = ChannelsOf(ready.device);
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
                ready.channels.push_back(*found);
                continue;
            }
            throw SourceError(settings.iio + " has no channel \"" + name + "\"; there are " +
                              names);
        }
        if (settings.channels.empty()) ready.channels = all;
        if (ready.channels.empty())
            throw SourceError(settings.iio + " has no channel that can be read");
    }

    void SetTrigger() {
        if (settings.trigger.empty()) return;
        const iio_device* const trigger =
            iio_context_find_device(ready.context.get(), settings.trigger.c_str());
        if (trigger == nullptr || !iio_device_is_trigger(trigger)) {
            std::string names;
            for (unsigned index = 0; index < iio_context_get_devices_count(ready.context.get());
                 ++index) {
                const iio_device* const other = iio_context_get_device(ready.context.get(), index);
                if (!iio_device_is_trigger(other)) continue;
                names += (names.empty() ? "; there are " : ", ") + Text(iio_device_get_name(other));
            }
            throw SourceError("no trigger " + settings.trigger +
                              (names.empty() ? "; there is none" : names));
        }
        const int result = iio_device_set_trigger(ready.device, trigger);
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
        std::string list = ReadAttribute(ready.device, kIioRates);
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
        const iio_device* timed = ready.device;
        const iio_device* trigger = nullptr;
        // A trigger of its own, such as a timer, may have the rate.
        if (ReadAttribute(ready.device, kRate).empty() &&
            iio_device_get_trigger(ready.device, &trigger) >= 0 && trigger != nullptr &&
            !ReadAttribute(trigger, kRate).empty()) {
            timed = trigger;
        }
        const bool isSet = !ReadAttribute(timed, kRate).empty();
        if (isSet && settings.rate > 0) {
            const double nearest = timed == ready.device ? NearestRate() : settings.rate;
            const int result = WriteAttribute(timed, kRate, NumberText(nearest));
            if (result == -EINVAL || result == -ERANGE) {
                throw SourceError(settings.iio + ": rate " + NumberText(nearest) +
                                  " is out of range");
            }
            if (result < 0) Refuse("the rate", result);
        }
        if (isSet) ready.rate = std::strtod(ReadAttribute(timed, kRate).c_str(), nullptr);
        if (!isSet || ready.rate <= 0)
            ready.rate = settings.rate > 0 ? settings.rate : kDefaultRate;
        if (settings.rate > 0 && std::fabs(ready.rate - settings.rate) > 1e-3 * settings.rate) {
            line.Tell("samples at a rate of " + NumberText(ready.rate) + ", the nearest to " +
                      NumberText(settings.rate));
        }
    }

    void ChooseFormat() {
        ready.format = SampleFormat::kInt16;
        for (const iio_channel* channel : ready.channels) {
            const iio_data_format* const each = iio_channel_get_data_format(channel);
            const char* const value = ValueAttribute(channel);
            const bool isProcessed =
                !ready.buffer && value != nullptr && std::strcmp(value, "input") == 0;
            if (settings.scaled || isProcessed) {
                ready.format = SampleFormat::kFloat32;
                return;
            }
            // One that has no place in a buffer does not say how wide it is.
            const bool isNarrow = iio_channel_is_scan_element(channel) && each->bits > 0 &&
                                  each->bits <= (each->is_signed ? 16U : 15U);
            if (!isNarrow) ready.format = SampleFormat::kInt32;
        }
    }

    void CheckSize() const {
        if (ready.channels.size() <= SampleBlocks::MaxChannels(ready.format)) return;
        throw SourceError(settings.iio + ": " + std::to_string(ready.channels.size()) +
                          " channels do not fit into a block of " +
                          std::to_string(kMaxSourceBlock) +
                          " bytes; choose some with \"channels\"");
    }

    // Null where each value has to be read by itself.
    [[nodiscard]] IioBuffer OpenBuffer(SourceLine& line) {
        if (!std::ranges::all_of(ready.channels, IsBuffered)) return nullptr;
        for (unsigned index = 0; index < iio_device_get_channels_count(ready.device); ++index) {
            iio_channel* const channel = iio_device_get_channel(ready.device, index);
            const bool isTime = iio_channel_get_type(channel) == IIO_TIMESTAMP &&
                                IsOneCount(*iio_channel_get_data_format(channel));
            const bool isWanted =
                std::ranges::find(ready.channels, channel) != ready.channels.end();
            if (isTime) ready.timestamp = channel;
            if (isTime || isWanted) {
                iio_channel_enable(channel);
            } else {
                iio_channel_disable(channel);
            }
        }
        if (ready.timestamp != nullptr) {
            // Else by the clock that can be set; older kernels have no choice.
            (void)WriteAttribute(ready.device, "current_timestamp_clock", "monotonic");
        }
        // Room for two seconds: nothing is lost while other programs have the processor.
        const auto length = static_cast<std::size_t>(std::clamp(2 * ready.rate, 128.0, 65536.0));
        IioBuffer buffer(iio_device_create_buffer(ready.device, length, false));
        const int error = errno;
        if (buffer) {
            if (iio_buffer_set_blocking_mode(buffer.get(), false) < 0) {
                throw SourceError(settings.iio + ": its buffer cannot be read without waiting");
            }
            return buffer;
        }
        const bool canRead = std::ranges::all_of(ready.channels, [](const iio_channel* each) {
            return ValueAttribute(each) != nullptr;
        });
        // That is what the kernel says of a buffer that no trigger fills.
        if (error == EINVAL && settings.trigger.empty() && canRead) {
            line.Tell("its buffer has no trigger: each value is read by itself");
            return nullptr;
        }
        if (error == EBUSY) throw SourceError(settings.iio + ": another program has its buffer");
        throw SourceError(WhyNotOpened("/dev/" + Text(iio_device_get_id(ready.device)), error));
    }

    void Describe(SourceLine& line) const {
        std::string text = settings.iio + ",";
        for (const iio_channel* channel : ready.channels)
            text += " " + Text(iio_channel_get_id(channel));
        text += ready.format == SampleFormat::kInt16   ? ", 16-bit counts"
                : ready.format == SampleFormat::kInt32 ? ", 32-bit counts"
                                                       : ", 32-bit floats";
        if (ready.format != SampleFormat::kFloat32)
            text += ", scale " + NumberText(ready.scales.front());
        line.Tell(text + ", rate " + NumberText(ready.rate) +
                  (ready.buffer ? ", buffered" : ", read one by one"));
    }

    const SourceSettings& settings;
    IioSetup ready;
};

}  // namespace

IioSetup SetUpIio(const SourceSettings& settings, SourceLine& line) {
    return Preparation(settings).Run(line);
}

}  // namespace vexa::unit
