#include "tool/recording/RecordingSource.h"

#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tool/Exit.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

bool IsReadOnce(const std::string& path) {
    struct stat status {};
    return path == "-" || (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
                           !S_ISDIR(status.st_mode));
}

Expected<RecordingContents> SurveyRecording(const std::string& path) {
    auto reader = PcapngReader::Open(path);
    if (!reader) return reader.error();
    RecordedBlocks blocks([](const RecordedBlock&) {});
    while (const auto frame = reader->Next()) {
        if (IsInterrupted()) return Error{ErrorKind::kCancelled, "interrupted"};
        blocks.Add(*frame);
    }
    if (!reader->Fault().empty() && blocks.Devices().empty()) {
        return Error{ErrorKind::kInvalidArgument, path + ": " + reader->Fault()};
    }
    return RecordingContents{blocks.Devices(), blocks.Start()};
}

Expected<std::vector<std::size_t>> ChooseDevices(const RecordingContents& contents,
                                                 const std::vector<std::string>& names) {
    std::vector<std::size_t> chosen;
    std::string known;
    for (std::size_t i = 0; i < contents.devices.size(); ++i) {
        const RecordedDevice& device = contents.devices[i];
        known += ' ';
        known += device.label;
        const bool isWanted = std::ranges::any_of(names, [&](const std::string& name) {
            return name == device.name || name == device.label;
        });
        if (names.empty() || isWanted) chosen.push_back(i);
    }
    for (const std::string& name : names) {
        const bool isThere =
            std::ranges::any_of(contents.devices, [&](const RecordedDevice& device) {
                return name == device.name || name == device.label;
            });
        if (isThere) continue;
        return Error{ErrorKind::kInvalidArgument,
                     name + " has sent nothing in this recording; what has:" +
                         (known.empty() ? " nothing" : known)};
    }
    return chosen;
}

Expected<std::unique_ptr<RecordingSource>> RecordingSource::Open(
    const std::string& path, const std::vector<std::string>& names, double speed) {
    auto contents = SurveyRecording(path);
    if (!contents) return contents.error();
    const auto chosen = ChooseDevices(*contents, names);
    if (!chosen) return chosen.error();
    if (chosen->empty()) {
        return Error{ErrorKind::kInvalidArgument, path + ": no device has sent anything"};
    }
    auto reader = PcapngReader::Open(path);
    if (!reader) return reader.error();
    return std::unique_ptr<RecordingSource>(
        new RecordingSource(path, std::move(*reader), std::move(*contents), *chosen, speed));
}

RecordingSource::RecordingSource(const std::string& path_, PcapngReader reader_,
                                 RecordingContents contents_,
                                 const std::vector<std::size_t>& chosen, double speed_)
    : path(path_),
      reader(std::move(reader_)),
      contents(std::move(contents_)),
      speed(speed_),
      placeOf(contents.devices.size()),
      deviceOf(chosen),
      blocks([this](const RecordedBlock& from) {
          // A recording that is still being made may have grown by a device.
          if (from.device >= placeOf.size()) return;
          const auto place = placeOf[from.device];
          if (!place) return;
          Block block{
              {from.bytes.begin(), from.bytes.end()}, {}, from.checksumRight, from.sequence};
          ready.push_back({*place, blocks.Devices()[from.device].child, from.seconds,
                           std::move(block), from.opened});
      }) {
    for (const std::size_t device : chosen) {
        placeOf[device] = names.size();
        names.push_back(contents.devices[device].name);
        labels.push_back(contents.devices[device].label);
    }
}

Expected<std::optional<SourceBlock>> RecordingSource::Receive(Milliseconds wait) {
    const auto until = DeadlineAfter(wait);
    while (ready.empty()) {
        const auto frame = reader.Next();
        if (!frame && !reader.Fault().empty()) {
            return Error{ErrorKind::kInvalidArgument, path + ": " + reader.Fault()};
        }
        if (!frame) return std::optional<SourceBlock>{};
        blocks.Add(*frame);
    }
    // Time begins with the first block.
    const auto due = [&] {
        const std::chrono::duration<double> since(ready.front().seconds / speed);
        return std::chrono::duration_cast<Clock::duration>(since);
    };
    if (begun == Clock::time_point{}) begun = Clock::now() - due();
    const auto at = begun + due();
    WaitInterruptibly(std::min(at, until));
    if (Clock::now() < at) return Error{ErrorKind::kTimeout, "nothing is due yet"};
    SourceBlock block = std::move(ready.front());
    ready.pop_front();
    block.block.receivedAt = Clock::now();
    return std::optional(std::move(block));
}

ChildStatistics RecordingSource::StatisticsOf(std::size_t device) const {
    const std::size_t index = deviceOf[device];
    if (index >= blocks.Devices().size()) return {};
    return blocks.Devices()[index].statistics;
}

void RecordingSource::PrintTotals() const {
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto counts = StatisticsOf(i);
        std::fprintf(
            stderr, "%s: %" PRIu64 " blocks, %" PRIu64 " bytes, %" PRIu64 " gaps in the sequence\n",
            labels[i].c_str(), counts.blocks, counts.bytes, counts.sequenceGaps);
    }
}

}  // namespace vexahost::tool
