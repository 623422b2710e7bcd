#include "tool/stream/StreamOutput.h"

namespace vexahost::tool {

const char* const kOutputNotes =
    "CSV of one device: a row for each sample time, a column for each channel (time_s,x [g],...).\n"
    "Of several devices: time_s,device,child,channel,unit,value. Lines that begin with # are\n"
    "comments: the start in UTC, gaps. JSON keys: time_s (of the first sample), step_s, epoch_s,\n"
    "device, child, sequence, device_time_s, channels {NAME: [samples]}, units, or bytes.\n"
    "docs/host-kit.md says how samples get their times.\n";

std::vector<Option> WithOutputOptions(OutputOptions& output, const std::string& json,
                                      std::vector<Option> options) {
    const std::vector<Option> own = {
        {"--csv", "", "a row for each sample", &output.csv},
        {.name = "--json",
         .placeholder = "",
         .help = json,
         .target = &output.json,
         .excludes = {"--csv"}},
        {.name = "--wide",
         .placeholder = "",
         .help = "CSV with a column for each channel (the default for one device)",
         .target = &output.wide,
         .needs = "--csv"},
        {.name = "--long",
         .placeholder = "",
         .help = "CSV with a row for each value (the default for several devices)",
         .target = &output.tall,
         .excludes = {"--wide"},
         .needs = "--csv"},
        {.name = "--out",
         .placeholder = "DIR",
         .help = "a file for each device, in this folder",
         .target = &output.folder,
         .excludes = {"--long"}},
        {.name = "--epoch",
         .placeholder = "",
         .help = "CSV times in seconds since 1970",
         .target = &output.epoch,
         .needs = "--csv"},
        {.name = "--iso",
         .placeholder = "",
         .help = "CSV times as 2026-11-22T08:15:30.345678Z",
         .target = &output.iso,
         .excludes = {"--epoch"},
         .needs = "--csv"},
    };
    options.insert(options.end(), own.begin(), own.end());
    return options;
}

Expected<Done> CheckOutput(const OutputOptions& output, std::size_t devices) {
    if (!output.folder.empty() && !output.csv && !output.wav) {
        return Error{ErrorKind::kInvalidArgument, "--out " + output.folder + " needs --csv"};
    }
    if (output.wide && output.folder.empty() && devices > 1) {
        return Error{ErrorKind::kInvalidArgument,
                     "--wide: several devices have no sample times in common; --out DIR writes a "
                     "file for each"};
    }
    return Done{};
}

std::unique_ptr<StreamSink> MakeOutputSink(const OutputOptions& output, const TextTarget& print,
                                           std::chrono::nanoseconds start, std::size_t devices) {
    const TimeStyle style = output.epoch ? TimeStyle::kEpoch
                            : output.iso ? TimeStyle::kIso
                                         : TimeStyle::kSeconds;
    const TimeWriter times(style, start);
    if (output.json) return MakeJsonSink(print, times);
    if (!output.folder.empty()) return MakeCsvFolderSink(output.folder, times);
    if (output.tall || devices > 1) return MakeLongCsvSink(print, times);
    return MakeWideCsvSink(print, times);
}

}  // namespace vexahost::tool
