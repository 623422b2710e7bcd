// The sinks that write lines to standard output.
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "StreamSink.h"
#include "vexahost/Describe.h"

namespace {

std::string Hex(const vexahost::Block& block) {
    return vexahost::HexText(block.bytes, block.bytes.size());
}

class TextSink final : public StreamSink {
  public:
    void Take(const StreamedBlock& from) override {
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

    void Take(const StreamedBlock& from) override {
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

// Whole numbers without a fraction.
nlohmann::ordered_json Number(double value) {
    constexpr double kMostWhole = 9007199254740992.0;  // from here on doubles leave some out
    if (std::trunc(value) == value && std::fabs(value) < kMostWhole) {
        return static_cast<std::int64_t>(value);
    }
    return value;
}

class JsonSink final : public StreamSink {
  public:
    void Take(const StreamedBlock& from) override {
        nlohmann::ordered_json line = {
            {"time_s", from.seconds}, {"device", from.name}, {"sequence", from.block.sequence}};
        if (from.reading) {
            if (from.reading->deviceSeconds) line["device_time_s"] = *from.reading->deviceSeconds;
            for (const Channel& channel : from.reading->channels) {
                auto& values = line["channels"][channel.name];
                for (const double value : channel.values) values.push_back(Number(value));
            }
        } else {
            line["bytes"] = Hex(from.block);
        }
        if (!from.block.checksumRight) line["checksum_right"] = false;
        // A name on the command line need not be UTF-8.
        using Json = nlohmann::ordered_json;
        std::printf("%s\n", line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    }

    void Update() override { std::fflush(stdout); }
};

}  // namespace

std::unique_ptr<StreamSink> MakeTextSink() { return std::make_unique<TextSink>(); }
std::unique_ptr<StreamSink> MakeCsvSink() { return std::make_unique<CsvSink>(); }
std::unique_ptr<StreamSink> MakeJsonSink() { return std::make_unique<JsonSink>(); }
