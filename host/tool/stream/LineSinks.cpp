// The sinks that write lines to standard output.
#include <algorithm>
#include <cstdio>

#include "tool/JsonObject.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

std::string Hex(const Block& block) { return HexText(block.bytes, block.bytes.size()); }

class TextSink final : public StreamSink {
  public:
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
        std::printf("%-14s %s%s\n", from.name.c_str(), line.c_str(),
                    from.block.checksumRight ? "" : " (checksum WRONG)");
    }

    void Update() override { std::fflush(stdout); }

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
    CsvSink() { std::printf("time_s,device,sequence,device_time_s,channel,index,value\n"); }

    void Add(const StreamedBlock& from) override {
        char start[64];
        std::snprintf(start, sizeof start, "%.6f,", from.seconds);
        std::string front =
            start + CsvField(from.name) + ',' + std::to_string(from.block.sequence) + ',';
        if (!from.reading) {
            std::printf("%s,bytes,0,%s\n", front.c_str(), Hex(from.block).c_str());
            return;
        }
        if (from.reading->deviceSeconds) front += ValueText(*from.reading->deviceSeconds);
        for (const Channel& channel : from.reading->channels) {
            const std::string name = CsvField(channel.name);
            for (std::size_t i = 0; i < channel.values.size(); ++i) {
                std::printf("%s,%s,%zu,%s\n", front.c_str(), name.c_str(), i,
                            ValueText(channel.values[i]).c_str());
            }
        }
    }

    void Update() override { std::fflush(stdout); }
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
    void Add(const StreamedBlock& from) override {
        JsonObject line;
        line.Add("time_s", from.seconds)
            .Add("device", from.name)
            .Add("sequence", from.block.sequence);
        if (from.reading) {
            const auto& deviceSeconds = from.reading->deviceSeconds;
            if (deviceSeconds) line.Add("device_time_s", *deviceSeconds);
            line.Add("channels", ChannelObject(from.reading->channels));
        } else {
            line.Add("bytes", Hex(from.block));
        }
        if (!from.block.checksumRight) line.Add("checksum_right", false);
        line.PrintLine();
    }

    void Update() override { std::fflush(stdout); }
};

}  // namespace

std::unique_ptr<StreamSink> MakeTextSink() { return std::make_unique<TextSink>(); }
std::unique_ptr<StreamSink> MakeCsvSink() { return std::make_unique<CsvSink>(); }
std::unique_ptr<StreamSink> MakeJsonSink() { return std::make_unique<JsonSink>(); }

}  // namespace vexahost::tool
