#include "sources/FileSource.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <fstream>
#include <optional>

#include "model/Runtime.h"
#include "sources/Recording.h"
#include "sources/Samples.h"

namespace vexa::unit {

namespace {

using Seconds = std::chrono::duration<double>;

// Waits for moments of a file's own time.
class Pace {
  public:
    Pace(SourceLine& line_, double speed_) : line(line_), speed(speed_) {}

    // Waits until `time` after the first moment; false when the source is to end.
    [[nodiscard]] bool Await(Seconds time) {
        const Seconds after = std::min(time / speed, kLongest);
        const TimePoint due = start + std::chrono::duration_cast<Clock::duration>(after);
        while (!line.IsEnding()) {
            (void)line.TakeWrites();  // a file takes none
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
            if (left.count() <= 0) return true;
            const auto wait = std::min(left, std::chrono::milliseconds(60000));
            (void)line.Wait(-1, 0, static_cast<int>(wait.count()));
        }
        return false;
    }

    [[nodiscard]] std::uint32_t Milliseconds() const {
        return static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    }

  private:
    static constexpr Seconds kLongest{1e9};  // the clock cannot count to any number

    SourceLine& line;
    const double speed;
    const TimePoint start = Clock::now();
};

// The fields of a line, without quotes.
std::vector<std::string> FieldsOf(const std::string& line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (const char letter : line) {
        if (letter == '"') {
            quoted = !quoted;
        } else if (letter == ',' && !quoted) {
            fields.emplace_back();
        } else if (letter != '\r') {
            fields.back() += letter;
        }
    }
    return fields;
}

std::optional<double> NumberIn(const std::string& text) {
    double number = 0;
    const auto first = text.find_first_not_of(' ');
    if (first == std::string::npos) return std::nullopt;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + first, end, number);
    if (error != std::errc() ||
        std::string_view(rest, end).find_first_not_of(' ') != std::string::npos) {
        return std::nullopt;
    }
    return number;
}

class TableSource final : public Source {
  public:
    explicit TableSource(const SourceSettings& settings_) : settings(settings_) {}

    void Run(SourceLine& line) override {
        ReadHeader();
        ChooseFormat();
        Pace pace(line, settings.speed);
        SampleBlocks blocks(line, format, columns.size(), MomentsPerSecond() * settings.speed);
        Seconds past{};  // of earlier repetitions
        do {
            const auto period = Play(pace, blocks, past);
            if (!period) return;
            past += *period;
        } while (settings.repeat);
        blocks.Flush();
    }

  private:
    static constexpr double kDefaultRate = 10;

    [[noreturn]] void Refuse(const std::string& why) const {
        throw SourceError(settings.file + ": " + why);
    }

    void Open() {
        file = std::ifstream(settings.file);
        if (!file) throw SourceError(WhyNotOpened(settings.file, errno));
        lineNumber = 0;
        text.clear();
        (void)NextLine();
    }

    void ReadHeader() {
        Open();
        const auto header = FieldsOf(text);
        if (!ReadRow()) Refuse("no line of samples after that with the names");
        std::string names;
        for (std::size_t index = 0; index < header.size(); ++index) {
            const std::string& name = header[index];
            const bool isTime =
                name == "time_s" || name == "epoch_s" || (index == 0 && name.starts_with("time"));
            if (!timeColumn && isTime && FieldAt(index)) {
                timeColumn = index;
                continue;
            }
            const auto& wanted = settings.channels;
            const bool isWanted =
                wanted.empty() ? FieldAt(index).has_value() : std::ranges::count(wanted, name) > 0;
            if (isWanted) columns.push_back(index);
            names += (names.empty() ? "" : ", ") + name;
        }
        for (const auto& name : settings.channels) {
            if (std::ranges::count(header, name) == 0) {
                Refuse("no column \"" + name + "\"; there are " + names);
            }
        }
        if (columns.empty()) Refuse("no column of numbers");
        if (columns.size() > SampleBlocks::MaxChannels(SampleFormat::kFloat32)) {
            Refuse(std::to_string(columns.size()) +
                   " columns do not fit into a block of 245 bytes");
        }
    }

    // Reads through the whole file.
    void ChooseFormat() {
        Open();
        while (ReadRow()) {
            for (const std::size_t column : columns) {
                const double value = SampleAt(column);
                if (value != std::nearbyint(value) || std::fabs(value) > INT16_MAX) {
                    format = SampleFormat::kFloat32;
                }
            }
            if (IsTimed()) {
                const double time = SampleAt(*timeColumn);
                if (!std::isfinite(time)) Refuse(Place() + ": the time is not finite");
                if (rows > 0 && time < lastTime) Refuse(Place() + ": the time goes back");
                if (rows == 0) firstTime = time;
                lastTime = time;
            }
            ++rows;
        }
    }

    [[nodiscard]] bool IsTimed() const { return timeColumn && settings.rate <= 0; }
    [[nodiscard]] std::string Place() const { return "line " + std::to_string(lineNumber); }

    [[nodiscard]] double MomentsPerSecond() const {
        if (settings.rate > 0) return settings.rate;
        const double length = lastTime - firstTime;
        return length > 0 ? static_cast<double>(rows - 1) / length : kDefaultRate;
    }

    // Sends all rows; how long that took in the file's own time, nothing when the source is to end.
    [[nodiscard]] std::optional<Seconds> Play(Pace& pace, SampleBlocks& blocks, Seconds past) {
        Open();
        const Seconds step(1 / MomentsPerSecond());
        Seconds time{};
        for (std::size_t row = 0; ReadRow(); ++row) {
            time = IsTimed() ? Seconds(SampleAt(*timeColumn) - firstTime)
                             : step * static_cast<double>(row);
            if (!pace.Await(past + time)) return std::nullopt;
            for (const std::size_t column : columns) {
                const double value = SampleAt(column);
                if (format == SampleFormat::kInt16) {
                    blocks.AddCount(static_cast<std::int64_t>(value));
                } else {
                    blocks.AddFloat(static_cast<float>(value));
                }
            }
            blocks.EndMoment(pace.Milliseconds());
        }
        return time + step;
    }

    // Reads the next line that has anything in it, and is not a comment.
    [[nodiscard]] bool NextLine() {
        while (std::getline(file, text)) {
            ++lineNumber;
            if (!text.empty() && text != "\r" && text[0] != '#') return true;
        }
        return false;
    }
    [[nodiscard]] bool ReadRow() {
        if (!NextLine()) return false;
        fields = FieldsOf(text);
        return true;
    }
    [[nodiscard]] std::optional<double> FieldAt(std::size_t index) const {
        return index < fields.size() ? NumberIn(fields[index]) : std::nullopt;
    }
    [[nodiscard]] double SampleAt(std::size_t index) const {
        const auto number = FieldAt(index);
        if (!number) {
            Refuse(Place() + ", column " + std::to_string(index + 1) + " is not a number");
        }
        return *number;
    }

    const SourceSettings settings;
    std::ifstream file;
    std::string text;
    std::size_t lineNumber = 0;
    std::vector<std::string> fields;
    std::vector<std::size_t> columns;  // of samples
    std::optional<std::size_t> timeColumn;
    double firstTime = 0;
    double lastTime = 0;
    std::size_t rows = 0;
    SampleFormat format = SampleFormat::kInt16;
};

class RecordingSource final : public Source {
  public:
    RecordingSource(const SourceSettings& settings_, const std::string& device)
        : settings(settings_), child(settings.child.empty() ? device : settings.child) {}

    void Run(SourceLine& line) override {
        Pace pace(line, settings.speed);
        Seconds past{};
        do {
            RecordedBlocks recording(settings.file, child);
            std::optional<std::chrono::nanoseconds> first;
            Seconds time{};
            while (const auto block = recording.Next()) {
                if (!first) first = block->time;
                time = std::max<Seconds>(time, block->time - *first);  // the clock may be set
                if (!pace.Await(past + time)) return;
                line.Pass(
                    std::span(block->bytes).first(std::min(block->bytes.size(), kMaxSourceBlock)));
            }
            if (!first) {
                throw SourceError(settings.file + " has nothing of \"" + child + "\"; there are " +
                                  recording.Names());
            }
            past += time + kPause;
        } while (settings.repeat);
    }

  private:
    static constexpr Seconds kPause{0.1};  // between two repetitions

    const SourceSettings settings;
    const std::string child;
};

}  // namespace

std::unique_ptr<Source> MakeFileSource(const SourceSettings& settings, const std::string& device) {
    if (settings.file.ends_with(".csv")) return std::make_unique<TableSource>(settings);
    return std::make_unique<RecordingSource>(settings, device);
}

}  // namespace vexa::unit
