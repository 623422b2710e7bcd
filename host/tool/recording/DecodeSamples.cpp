#include "tool/recording/DecodeSamples.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include "tool/recording/RecordingSource.h"

namespace vexahost::tool {

namespace {

// Reads the samples of the devices that are wanted. The form of the output is that for so many
// devices; of those in the recording only the first `known_` are looked at.
class SampleDecoding {
  public:
    SampleDecoding(const DecodeSamplesOptions& options_,
                   std::shared_ptr<const DeviceFormats> formats_, std::size_t devices_,
                   std::size_t known_)
        : options(options_),
          formats(std::move(formats_)),
          deviceCount(devices_),
          known(known_),
          blocks([this](const RecordedBlock& from) { Pass(from); }) {}

    // The sink is made once the first frame has told the start.
    Expected<Done> Add(const CapturedFrame& frame) {
        blocks.Add(frame);
        if (!sink) MakeSink();
        return sink->Update();
    }

    Expected<Done> Finish() {
        if (!sink) MakeSink();
        sink->Finish();
        std::fflush(stdout);
        for (std::size_t i = 0; i < std::min(blocks.Devices().size(), known); ++i) {
            const RecordedDevice& device = blocks.Devices()[i];
            if (!IsWanted(device)) continue;
            std::fprintf(stderr, "%s: %llu blocks, %llu samples, %llu gaps in the sequence\n",
                         device.label.c_str(),
                         static_cast<unsigned long long>(device.statistics.blocks),
                         static_cast<unsigned long long>(i < samples.size() ? samples[i] : 0),
                         static_cast<unsigned long long>(device.statistics.sequenceGaps));
        }
        return sink->Update();
    }

  private:
    bool IsWanted(const RecordedDevice& device) const {
        const auto& wanted = options.devices;
        return wanted.empty() || std::ranges::find(wanted, device.name) != wanted.end() ||
               std::ranges::find(wanted, device.label) != wanted.end();
    }

    void MakeSink() {
        const TextTarget print = [](std::string_view text) {
            std::fwrite(text.data(), 1, text.size(), stdout);
        };
        if (options.output.wav) {
            const std::string folder = options.output.folder.empty() ? "." : options.output.folder;
            sink = MakeWavSink(folder, [this](std::size_t device) {
                return device < readers.size() && readers[device] ? readers[device]->Rate()
                                                                  : std::nullopt;
            });
        } else {
            sink = MakeOutputSink(options.output, print, blocks.Start(), deviceCount);
        }
    }

    void Pass(const RecordedBlock& from) {
        const RecordedDevice& device = blocks.Devices()[from.device];
        if (from.device >= known || !IsWanted(device)) return;
        if (!sink) MakeSink();
        if (from.device >= readers.size()) {
            readers.resize(from.device + 1);
            samples.resize(from.device + 1);
        }
        auto& reader = readers[from.device];
        if (!reader) {
            reader = std::make_unique<SampleReader>(device.name, formats, from.opened.value_or(0));
        } else if (from.opened) {
            reader->Reopen(*from.opened);
        }
        const auto* const found =
            reader->Read(from.bytes, from.sequence, from.seconds, from.checksumRight);
        if (found != nullptr) samples[from.device] += found->Count();
        block.bytes.assign(from.bytes.begin(), from.bytes.end());
        block.sequence = from.sequence;
        block.checksumRight = from.checksumRight;
        sink->Add({from.device, device.name, device.label, device.child, from.seconds, block, found,
                   reader->Format()});
    }

    const DecodeSamplesOptions& options;
    const std::shared_ptr<const DeviceFormats> formats;
    const std::size_t deviceCount;
    const std::size_t known;
    RecordedBlocks blocks;
    std::vector<std::unique_ptr<SampleReader>> readers;  // of the recording's devices
    std::vector<std::uint64_t> samples;
    std::unique_ptr<StreamSink> sink;
    Block block;  // reused
};

}  // namespace

ExitCode DecodeSamples(const DecodeSamplesOptions& options) {
    constexpr std::size_t kSeveral = 2;
    auto names = options.devices;
    // How many devices there are decides the form, and a wrong name is told before all else. What
    // comes from a pipe can be read only once.
    std::size_t devices = names.size() == 1 ? 1 : kSeveral;
    std::size_t known = std::numeric_limits<std::size_t>::max();
    if (!IsReadOnce(options.file)) {
        const auto contents = SurveyRecording(options.file);
        if (!contents) return ReportError(contents.error());
        const auto chosen = ChooseDevices(*contents, names);
        if (!chosen) return ReportError(chosen.error());
        devices = chosen->size();
        known = contents->devices.size();  // the file may grow meanwhile
        names.clear();
        for (const std::size_t device : *chosen) names.push_back(contents->devices[device].name);
    } else if (names.empty() && !options.formats.formats.empty()) {
        return ReportError({ErrorKind::kInvalidArgument, "--format needs --device at a pipe"});
    }
    const auto formats = LoadFormats(options.formats, names);
    if (!formats) return ReportError(formats.error());
    if (const auto right = CheckOutput(options.output, devices); !right) {
        return ReportError(right.error());
    }
    auto reader = PcapngReader::Open(options.file);
    if (!reader) return ReportError(reader.error());
    SampleDecoding decoding(options, *formats, devices, known);
    while (const auto frame = reader->Next()) {
        if (std::ferror(stdout) != 0) return kExitDone;  // what this means is said at the end
        const auto added = decoding.Add(*frame);
        if (added) continue;
        (void)decoding.Finish();  // files keep what they have
        return ReportError(added.error());
    }
    if (const auto finished = decoding.Finish(); !finished) return ReportError(finished.error());
    if (reader->Fault().empty()) return kExitDone;
    return ReportError({ErrorKind::kInvalidArgument, options.file + ": " + reader->Fault()});
}

}  // namespace vexahost::tool
