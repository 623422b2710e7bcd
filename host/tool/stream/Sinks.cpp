// What the sinks have in common.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <utility>

#include "tool/stream/StreamSink.h"

namespace vexahost::tool {

namespace {

constexpr std::int64_t kMicro = 1'000'000;

// "12.345678".
void AppendMicroseconds(std::string& text, std::int64_t microseconds) {
    if (microseconds < 0) text += '-';
    const std::int64_t size = microseconds < 0 ? -microseconds : microseconds;
    text += std::to_string(size / kMicro);
    char fraction[8] = ".000000";
    for (std::int64_t at = 6, rest = size % kMicro; rest > 0; --at, rest /= 10) {
        fraction[at] = static_cast<char>('0' + rest % 10);
    }
    text.append(fraction, 7);
}

void AppendIso(std::string& text, std::int64_t microseconds) {
    const std::int64_t fraction = (microseconds % kMicro + kMicro) % kMicro;
    const auto seconds = static_cast<std::time_t>((microseconds - fraction) / kMicro);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char day[32];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    char all[48];
    std::snprintf(all, sizeof all, "%s.%06dZ", day, static_cast<int>(fraction));
    text += all;
}

}  // namespace

void TimeWriter::Append(std::string& text, double seconds) const {
    const std::int64_t since = std::llround(seconds * kMicro);
    switch (style) {
        case TimeStyle::kSeconds:
            return AppendMicroseconds(text, since);
        case TimeStyle::kEpoch:
            return AppendMicroseconds(text, start.count() + since);
        case TimeStyle::kIso:
            return AppendIso(text, start.count() + since);
    }
}

std::string TimeWriter::Start() const {
    std::string text;
    AppendIso(text, start.count());
    return text;
}

double TimeWriter::Epoch(double seconds) const {
    return static_cast<double>(start.count() + std::llround(seconds * kMicro)) / kMicro;
}

const char* TimeWriter::Column() const {
    switch (style) {
        case TimeStyle::kSeconds:
            return "time_s";
        case TimeStyle::kEpoch:
            return "epoch_s";
        case TimeStyle::kIso:
            return "time_utc";
    }
    return "";
}

std::string FileNames::Take(std::string wanted) {
    for (char& c : wanted) {
        if (c == '/' || static_cast<unsigned char>(c) < ' ') c = '_';
    }
    std::string name = wanted;
    for (int i = 2; !taken.insert(name).second; ++i) name = wanted + '-' + std::to_string(i);
    return name;
}

namespace {

class TeeSink final : public StreamSink {
  public:
    explicit TeeSink(std::vector<std::unique_ptr<StreamSink>> sinks_) : sinks(std::move(sinks_)) {}

    void Add(const StreamedBlock& block) override {
        for (const auto& sink : sinks) sink->Add(block);
    }
    void AddOutage(double lost, double back) override {
        for (const auto& sink : sinks) sink->AddOutage(lost, back);
    }
    Expected<Done> Update() override {
        for (const auto& sink : sinks) {
            if (auto updated = sink->Update(); !updated) return updated;
        }
        return Done{};
    }
    void Finish() override {
        for (const auto& sink : sinks) sink->Finish();
    }
    bool WantsEnd() override {
        for (const auto& sink : sinks) {
            if (sink->WantsEnd()) return true;
        }
        return false;
    }

  private:
    const std::vector<std::unique_ptr<StreamSink>> sinks;
};

}  // namespace

std::unique_ptr<StreamSink> MakeTeeSink(std::vector<std::unique_ptr<StreamSink>> sinks) {
    return std::make_unique<TeeSink>(std::move(sinks));
}

}  // namespace vexahost::tool
