// The sinks that write lines to standard output.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "tool/JsonObject.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

std::string Hex(const Block& block) { return HexText(block.bytes, block.bytes.size()); }

class TextSink final : public StreamSink {
  public:
    explicit TextSink(PatientOutput& output_) : output(output_) {}

    void Add(const StreamedBlock& from) override {
        std::string line;
        if (from.reading) {
            char time[32];
            std::snprintf(time, sizeof time,
                          "%.3f s:", from.reading->deviceSeconds.value_or(from.seconds));
            line = time;
            for (const Channel& channel : from.reading->channels) AppendChannel(line, channel);
        } else {
            line = Hex(from.block);
        }
        constexpr std::size_t kLabelColumns = 14;
        std::string label = from.label;
        label.resize(std::max(label.size(), kLabelColumns), ' ');
        output.Add(label + ' ' + line + (from.block.checksumRight ? "\n" : " (checksum WRONG)\n"));
    }

  private:
    static void AppendChannel(std::string& line, const Channel& channel) {
        if (channel.name != "value") line += ' ' + channel.name + '=';
        bool isFirst = channel.name != "value";
        for (const double value : channel.values) {
            if (!isFirst) line += ' ';
            isFirst = false;
            line += ValueText(value);
        }
    }

    PatientOutput& output;
};

// A field of a CSV row, in quotes where it needs them.
std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

class CsvSink final : public StreamSink {
  public:
    explicit CsvSink(PatientOutput& output_) : output(output_) {
        output.Add("time_s,device,child,sequence,device_time_s,channel,index,value\n");
    }

    void Add(const StreamedBlock& from) override {
        char start[64];
        std::snprintf(start, sizeof start, "%.6f,", from.seconds);
        std::string front = start + CsvField(from.name) + ',' +
                            (from.child ? std::to_string(*from.child) : "") + ',' +
                            std::to_string(from.block.sequence) + ',';
        if (!from.reading) {
            output.Add(front + ",bytes,0," + Hex(from.block) + '\n');
            return;
        }
        if (from.reading->deviceSeconds) front += ValueText(*from.reading->deviceSeconds);
        for (const Channel& channel : from.reading->channels) {
            const std::string name = front + ',' + CsvField(channel.name) + ',';
            for (std::size_t i = 0; i < channel.values.size(); ++i) {
                output.Add(name + std::to_string(i) + ',' + ValueText(channel.values[i]) + '\n');
            }
        }
    }

  private:
    PatientOutput& output;
};

// The samples under the names of their channels; those of a name that comes again join the first.
JsonObject ChannelObject(const std::vector<Channel>& channels) {
    JsonObject object;
    std::vector<std::string> done;
    for (const Channel& channel : channels) {
        if (std::ranges::find(done, channel.name) != done.end()) continue;
        done.push_back(channel.name);
        std::vector<double> values;
        for (const Channel& same : channels) {
            if (same.name != channel.name) continue;
            values.insert(values.end(), same.values.begin(), same.values.end());
        }
        object.Add(channel.name, std::span<const double>(values));
    }
    return object;
}

class JsonSink final : public StreamSink {
  public:
    explicit JsonSink(PatientOutput& output_) : output(output_) {}

    void Add(const StreamedBlock& from) override {
        JsonObject line;
        line.Add("time_s", from.seconds).Add("device", from.name);
        if (from.child) line.Add("child", *from.child);
        line.Add("sequence", from.block.sequence);
        if (from.reading) {
            const auto& deviceSeconds = from.reading->deviceSeconds;
            if (deviceSeconds) line.Add("device_time_s", *deviceSeconds);
            line.Add("channels", ChannelObject(from.reading->channels));
        } else {
            line.Add("bytes", Hex(from.block));
        }
        if (!from.block.checksumRight) line.Add("checksum_right", false);
        output.Add(line.Text() + '\n');
    }

  private:
    PatientOutput& output;
};

}  // namespace

std::unique_ptr<StreamSink> MakeTextSink(PatientOutput& output) {
    return std::make_unique<TextSink>(output);
}
std::unique_ptr<StreamSink> MakeCsvSink(PatientOutput& output) {
    return std::make_unique<CsvSink>(output);
}
std::unique_ptr<StreamSink> MakeJsonSink(PatientOutput& output) {
    return std::make_unique<JsonSink>(output);
}

}  // namespace vexahost::tool
