// The sinks that write CSV. A line that begins with "#" is a comment: the start, and each gap.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "tool/Samples.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Describe.h"

namespace vexahost::tool {

namespace {

// A field of a CSV row, in quotes where it needs them.
std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n#") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

// Text that cannot end a comment's line.
std::string OneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ') c = '?';
    }
    return text;
}

std::string ChildText(const StreamedBlock& from) {
    return from.child ? std::to_string(*from.child) : "";
}

// One text in CSV.
class CsvSink : public StreamSink {
  public:
    CsvSink(TextTarget target_, const TimeWriter& times_)
        : target(std::move(target_)), times(times_) {}

    void AddOutage(double lost, double back) override {
        text = "# link lost at ";
        times.Append(text, lost);
        text += ", back at ";
        times.Append(text, back);
        target(text += '\n');
    }

  protected:
    // `of`: whose gap, with a blank before it.
    void AppendGap(const std::string& of, double before) {
        text += "# gap" + of + " before ";
        times.Append(text, before);
        text += '\n';
    }

    const TextTarget target;
    const TimeWriter times;
    std::string text;  // of the block
};

class WideCsvSink final : public CsvSink {
  public:
    using CsvSink::CsvSink;

    void Add(const StreamedBlock& from) override {
        if (from.samples == nullptr) return;
        text.clear();
        if (!isBegun) {
            Begin(from);
        } else if (from.samples->times.afterGap) {
            AppendGap("", from.samples->times.first);
        }
        const SampleBlock& samples = *from.samples;
        for (std::size_t i = 0; i < samples.Count(); ++i) {
            times.Append(text, samples.TimeOf(i));
            for (const auto& row : samples.values) AppendValue(text += ',', row[i]);
            text += '\n';
        }
        target(text);
    }

    // What nothing has come for has a header as well.
    void Finish() override {
        if (!isBegun) target(std::string(times.Column()) + '\n');
    }

  private:
    void Begin(const StreamedBlock& from) {
        isBegun = true;
        text += "# start " + times.Start() + ", device " + OneLine(from.name);
        if (from.child) text += ", child " + ChildText(from);
        text += '\n';
        text += times.Column();
        for (const ChannelFormat& channel : from.format->channels) {
            const std::string unit = channel.unit.empty() ? "" : " [" + channel.unit + "]";
            text += ',' + CsvField(channel.name + unit);
        }
        text += '\n';
    }

    bool isBegun = false;
};

class LongCsvSink final : public CsvSink {
  public:
    LongCsvSink(TextTarget target_, const TimeWriter& times_)
        : CsvSink(std::move(target_), times_) {
        target("# start " + times.Start() + "\n" + times.Column() +
               ",device,child,channel,unit,value\n");
    }

    void Add(const StreamedBlock& from) override {
        text.clear();
        const std::string sender = ',' + CsvField(from.name) + ',' + ChildText(from) + ',';
        if (from.samples == nullptr) {
            times.Append(text, from.seconds);
            text += sender + "bytes,," + HexText(from.block.bytes, from.block.bytes.size());
            target(text += '\n');
            return;
        }
        const SampleBlock& samples = *from.samples;
        if (samples.times.afterGap) {
            AppendGap(" of " + OneLine(from.label), samples.times.first);
        }
        std::vector<std::string> fronts;
        for (const ChannelFormat& channel : from.format->channels) {
            fronts.push_back(sender + CsvField(channel.name) + ',' + CsvField(channel.unit) + ',');
        }
        for (std::size_t i = 0; i < samples.Count(); ++i) {
            for (std::size_t channel = 0; channel < fronts.size(); ++channel) {
                times.Append(text, samples.TimeOf(i));
                AppendValue(text += fronts[channel], samples.values[channel][i]);
                text += '\n';
            }
        }
        target(text);
    }
};

class CsvFolderSink final : public StreamSink {
  public:
    CsvFolderSink(std::string folder_, const TimeWriter& times_)
        : folder(std::move(folder_)), times(times_) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) fault = "cannot make " + folder + ": " + error.message();
    }

    void Add(const StreamedBlock& from) override {
        if (from.samples == nullptr || !fault.empty()) return;
        auto& file = files[from.device];
        if (!file.sink) Open(file, from.label);
        if (file.sink) file.sink->Add(from);
    }

    void AddOutage(double lost, double back) override {
        for (auto& [device, file] : files) {
            if (file.sink) file.sink->AddOutage(lost, back);
        }
    }

    Expected<Done> Update() override {
        if (fault.empty()) return Done{};
        return Error{ErrorKind::kInvalidArgument, fault};
    }

    void Finish() override {
        for (auto& [device, file] : files) {
            if (file.file && std::fflush(file.file.get()) != 0) NoteFault(file.path);
        }
    }

  private:
    struct Closer {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };
    struct File {
        std::string path;
        std::unique_ptr<std::FILE, Closer> file;
        std::unique_ptr<StreamSink> sink;
    };

    void Open(File& file, const std::string& label) {
        file.path = folder + "/" + names.Take(label) + ".csv";
        file.file.reset(std::fopen(file.path.c_str(), "we"));
        if (!file.file) return NoteFault(file.path);
        const auto write = [this, &file](std::string_view text) {
            if (std::fwrite(text.data(), 1, text.size(), file.file.get()) != text.size()) {
                NoteFault(file.path);
            }
        };
        file.sink = MakeWideCsvSink(write, times);
    }

    void NoteFault(const std::string& path) {
        if (fault.empty()) fault = "cannot write " + path + ": " + std::strerror(errno);
    }

    const std::string folder;
    const TimeWriter times;
    FileNames names;
    std::map<std::size_t, File> files;  // by device
    std::string fault;
};

}  // namespace

std::unique_ptr<StreamSink> MakeWideCsvSink(TextTarget target, const TimeWriter& times) {
    return std::make_unique<WideCsvSink>(std::move(target), times);
}
std::unique_ptr<StreamSink> MakeLongCsvSink(TextTarget target, const TimeWriter& times) {
    return std::make_unique<LongCsvSink>(std::move(target), times);
}
std::unique_ptr<StreamSink> MakeCsvFolderSink(const std::string& folder, const TimeWriter& times) {
    return std::make_unique<CsvFolderSink>(folder, times);
}

}  // namespace vexahost::tool
