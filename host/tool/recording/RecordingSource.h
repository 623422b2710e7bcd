// A recording as the source of a stream, at its own pace.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tool/stream/StreamSource.h"
#include "vexahost/RecordedBlocks.h"

namespace vexahost::tool {

// What is in a recording, without its blocks.
struct RecordingContents {
    std::vector<RecordedDevice> devices;
    CaptureTime start{};
};

// True of standard input ("-") and of pipes: what comes from them can be read only once.
bool IsReadOnce(const std::string& path);

// Reads the whole of a recording, or what is there before a fault. kInvalidArgument when it cannot
// be read, or no device has sent anything before the fault.
Expected<RecordingContents> SurveyRecording(const std::string& path);

// Indices of the devices with one of these names, or all without names. kInvalidArgument, with the
// names that there are, for a name that none has.
Expected<std::vector<std::size_t>> ChooseDevices(const RecordingContents& contents,
                                                 const std::vector<std::string>& names);

// Blocks come at the times at which they were recorded, or that many times as fast.
class RecordingSource final : public StreamSource {
  public:
    static Expected<std::unique_ptr<RecordingSource>> Open(const std::string& path,
                                                           const std::vector<std::string>& names,
                                                           double speed);

    const std::vector<std::string>& Names() const override { return names; }
    const std::vector<std::string>& Labels() const override { return labels; }
    double OpenedAt(std::size_t /*device*/) const override { return 0; }
    std::chrono::nanoseconds Start() const override { return contents.start; }
    Expected<std::optional<SourceBlock>> Receive(Milliseconds wait) override;
    ChildStatistics StatisticsOf(std::size_t device) const override;
    void PrintTotals() const override;

  private:
    RecordingSource(const std::string& path_, PcapngReader reader_, RecordingContents contents_,
                    const std::vector<std::size_t>& chosen, double speed_);

    const std::string path;
    PcapngReader reader;
    const RecordingContents contents;
    const double speed;
    std::vector<std::string> names;
    std::vector<std::string> labels;
    std::vector<std::optional<std::size_t>> placeOf;  // of each device of the recording
    std::vector<std::size_t> deviceOf;                // of each of ours
    RecordedBlocks blocks;
    std::deque<SourceBlock> ready;  // of the newest frame
    std::chrono::steady_clock::time_point begun{};
};

}  // namespace vexahost::tool
