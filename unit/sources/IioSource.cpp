// The module behind IioModule.h: sensors through libiio's local context.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "model/Runtime.h"
#include "sources/IioModule.h"
#include "sources/IioSetup.h"
#include "sources/Inventory.h"

namespace vexa::unit {

namespace {

class IioSource final : public Source {
  public:
    explicit IioSource(const SourceSettings& settings_) : settings(settings_) {}

    void Run(SourceLine& line) override {
        sensor = SetUpIio(settings, line);
        SampleBlocks blocks(line, sensor.format, sensor.channels.size(), sensor.rate);
        if (sensor.buffer) {
            Capture(line, blocks, sensor.buffer.get());
        } else {
            ReadEach(line, blocks);
        }
    }

  private:
    void Add(SampleBlocks& blocks, std::size_t index, std::int64_t count) const {
        if (sensor.format != SampleFormat::kFloat32) return blocks.AddCount(count);
        const double counts = static_cast<double>(count) + sensor.offsets[index];
        blocks.AddFloat(static_cast<float>(counts * sensor.scales[index]));
    }

    [[nodiscard]] std::uint32_t Milliseconds() const {
        return static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - opened).count());
    }

    void Capture(SourceLine& line, SampleBlocks& blocks, iio_buffer* buffer) {
        // A block comes a twentieth of a second after its first moment, or with each moment.
        constexpr double kMostMs = 50;
        const int period = static_cast<int>(std::clamp(1000 / sensor.rate, 5.0, kMostMs));
        while (!line.IsEnding()) {
            (void)line.TakeWrites();  // a sensor takes none
            (void)line.Wait(-1, 0, period);
            const ssize_t size = iio_buffer_refill(buffer);
            if (size == -EAGAIN || size == -EINTR || size == 0) continue;
            if (size < 0) ThrowGone(static_cast<int>(-size));
            for (std::ptrdiff_t at = 0; at < size; at += iio_buffer_step(buffer)) {
                for (std::size_t index = 0; index < sensor.channels.size(); ++index) {
                    Add(blocks, index,
                        CountAt(sensor.channels[index], Place(buffer, sensor.channels[index], at)));
                }
                blocks.EndMoment(
                    sensor.timestamp == nullptr
                        ? Milliseconds()
                        : TimeOf(CountAt(sensor.timestamp, Place(buffer, sensor.timestamp, at))));
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
                start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                            static_cast<double>(moment) / sensor.rate));
            // The time is taken once: one that is past by the second look would be a wait without
            // end.
            for (auto now = Clock::now(); !line.IsEnding() && now < due; now = Clock::now()) {
                (void)line.TakeWrites();
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - now);
                (void)line.Wait(-1, 0,
                                static_cast<int>(std::min<std::int64_t>(left.count(), 60000)));
            }
            std::vector<double> values;
            int result = 0;
            for (const iio_channel* channel : sensor.channels) {
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
                if (std::strcmp(ValueAttribute(sensor.channels[index]), "input") == 0) {
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
    IioSetup sensor;
    const TimePoint opened = Clock::now();
    std::int64_t firstTime = 0;
    std::uint32_t firstMs = 0;
};

}  // namespace

extern "C" VEXA_UNIT_EXPORT Source* VexaMakeIioSource(const SourceSettings& settings) {
    return new IioSource(settings);
}

extern "C" VEXA_UNIT_EXPORT void VexaListIioDevices(std::vector<IioDevice>& devices) {
    if (IioEntries().empty()) return;  // libiio would complain of a kernel without them
    const IioContext context = OpenIioContext();
    for (unsigned index = 0; index < iio_context_get_devices_count(context.get()); ++index) {
        const iio_device* const device = iio_context_get_device(context.get(), index);
        const std::string id = Text(iio_device_get_id(device));
        if (!id.starts_with("iio:device")) continue;  // hardware monitors are listed, too
        IioDevice entry{id, Text(iio_device_get_name(device)), Text(iio_device_get_label(device)),
                        {}, ReadAttribute(device, kIioRates),  false};
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
