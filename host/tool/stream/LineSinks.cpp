// The sinks that write a line for each block.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "tool/JsonObject.h"
#include "tool/Samples.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

std::string Hex(const Block& block) { return HexText(block.bytes, block.bytes.size()); }

// Without digits that mean nothing.
double Rounded(double seconds, double perSecond) {
    return std::round(seconds * perSecond) / perSecond;
}

class TextSink final : public StreamSink {
  public:
    explicit TextSink(TextTarget target_) : target(std::move(target_)) {}

    void Add(const StreamedBlock& from) override {
        std::string line;
        if (from.samples != nullptr) {
            char time[32];
            std::snprintf(time, sizeof time,
                          "%.3f s:", from.samples->deviceSeconds.value_or(from.seconds));
            line = time;
            for (std::size_t i = 0; i < from.samples->values.size(); ++i) {
                AppendChannel(line, from.format->channels[i], from.samples->values[i]);
            }
        } else {
            line = Hex(from.block);
        }
        constexpr std::size_t kLabelColumns = 14;
        std::string label = from.label;
        label.resize(std::max(label.size(), kLabelColumns), ' ');
        target(label + ' ' + line + (from.block.checksumRight ? "\n" : " (checksum WRONG)\n"));
    }

  private:
    static void AppendChannel(std::string& line, const ChannelFormat& channel,
                              const std::vector<double>& values) {
        const bool isNamed = channel.name != "value";
        if (isNamed) line += ' ' + channel.name + '=';
        bool isFirst = isNamed;
        for (const double value : values) {
            if (!isFirst) line += ' ';
            isFirst = false;
            AppendValue(line, value);
        }
        if (!channel.unit.empty()) line += ' ' + channel.unit;
    }

    const TextTarget target;
};

class JsonSink final : public StreamSink {
  public:
    JsonSink(TextTarget target_, const TimeWriter& times_)
        : target(std::move(target_)), times(times_) {}

    void Add(const StreamedBlock& from) override {
        JsonObject line;
        const double time = from.samples != nullptr ? from.samples->times.first : from.seconds;
        line.Add("time_s", Rounded(time, 1e6))
            .Add("epoch_s", times.Epoch(time))
            .Add("device", from.name);
        if (from.child) line.Add("child", *from.child);
        line.Add("sequence", from.block.sequence);
        if (from.samples != nullptr) {
            AddSamples(line, *from.samples, *from.format);
        } else {
            line.Add("bytes", Hex(from.block));
        }
        if (!from.block.checksumRight) line.Add("checksum_right", false);
        target(line.Text() + '\n');
    }

    void AddOutage(double lost, double back) override {
        target(JsonObject()
                   .Add("lost_s", Rounded(lost, 1e6))
                   .Add("back_s", Rounded(back, 1e6))
                   .Text() +
               '\n');
    }

  private:
    static void AddSamples(JsonObject& line, const SampleBlock& samples,
                           const DeviceFormat& format) {
        line.Add("step_s", Rounded(samples.times.step, 1e9));
        if (samples.times.afterGap) line.Add("gap", true);
        if (samples.deviceSeconds) line.Add("device_time_s", *samples.deviceSeconds);
        JsonObject channels;
        JsonObject units;
        bool hasUnits = false;
        for (std::size_t i = 0; i < samples.values.size(); ++i) {
            const ChannelFormat& channel = format.channels[i];
            channels.Add(channel.name, std::span<const double>(samples.values[i]));
            if (channel.unit.empty()) continue;
            units.Add(channel.name, channel.unit);
            hasUnits = true;
        }
        line.Add("channels", channels);
        if (hasUnits) line.Add("units", units);
    }

    const TextTarget target;
    const TimeWriter times;
};

}  // namespace

std::unique_ptr<StreamSink> MakeTextSink(TextTarget target) {
    return std::make_unique<TextSink>(std::move(target));
}
std::unique_ptr<StreamSink> MakeJsonSink(TextTarget target, const TimeWriter& times) {
    return std::make_unique<JsonSink>(std::move(target), times);
}

}  // namespace vexahost::tool
