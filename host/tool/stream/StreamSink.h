// Receives the blocks of a stream: prints, draws or sends them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Block.h"
#include "vexahost/Expected.h"
#include "vexahost/Samples.h"

namespace vexahost::tool {

// A block with its samples.
struct StreamedBlock {
    std::size_t device;            // index among the stream's devices
    const std::string& name;       // of the device
    const std::string& label;      // the name, with the child's id where two devices share a name
    std::optional<ChildId> child;  // nothing: the DAQ
    double seconds;                // from the start of the stream to the block's arrival
    const Block& block;
    const SampleBlock* samples;  // null: it holds none
    const DeviceFormat* format;  // of the samples
};

// One thread at a time.
class StreamSink {
  public:
    virtual ~StreamSink() = default;

    virtual void Add(const StreamedBlock& block) = 0;

    // The link was lost at one time, and all devices are open anew at the other; seconds from the
    // start of the stream.
    virtual void AddOutage(double /*lost*/, double /*back*/) {}

    // Called at least every 20 ms or so, also when nothing has come. The error of a sink that
    // cannot go on.
    virtual Expected<Done> Update() { return Done{}; }

    // No block comes any more. Update() then tells what could not be written.
    virtual void Finish() {}

    // True once the user has asked for the end of the stream.
    [[nodiscard]] virtual bool WantsEnd() { return false; }
};

// Names for the files of a sink, no two alike.
class FileNames {
  public:
    // `wanted` without what no file name has; with "-2" and so on after it if that is taken.
    std::string Take(std::string wanted);

  private:
    std::set<std::string> taken;
};

// Takes text for a reader or a file.
using TextTarget = std::function<void(std::string_view)>;

enum class TimeStyle { kSeconds, kEpoch, kIso };

// Writes times for people and programs, with microseconds.
class TimeWriter {
  public:
    // `start` is zero of all times, since 1970-01-01 00:00 UTC.
    TimeWriter(TimeStyle style_, std::chrono::nanoseconds start_)
        : style(style_), start(std::chrono::floor<std::chrono::microseconds>(start_)) {}

    // "12.345678", "1764.345678" or "2026-11-22T08:15:30.345678Z".
    void Append(std::string& text, double seconds) const;

    // The start: "2026-11-22T08:15:18.000000Z".
    [[nodiscard]] std::string Start() const;

    // Seconds since 1970.
    [[nodiscard]] double Epoch(double seconds) const;

    // The name of a column with such times.
    [[nodiscard]] const char* Column() const;

  private:
    const TimeStyle style;
    const std::chrono::microseconds start;
};

// A line for each block: device, time (the device's own where it is known), samples or bytes.
std::unique_ptr<StreamSink> MakeTextSink(TextTarget target);

// A JSON object for each block (docs/host-kit.md has the keys), and one for each outage.
std::unique_ptr<StreamSink> MakeJsonSink(TextTarget target, const TimeWriter& times);

// One device: a row for each sample time, a column for each channel.
std::unique_ptr<StreamSink> MakeWideCsvSink(TextTarget target, const TimeWriter& times);

// Several devices: a row for each sample of each channel.
std::unique_ptr<StreamSink> MakeLongCsvSink(TextTarget target, const TimeWriter& times);

// A file in `folder` for each device, called by its label: LABEL.csv, wide. The folder is made
// if need be.
std::unique_ptr<StreamSink> MakeCsvFolderSink(const std::string& folder, const TimeWriter& times);

// Samples per second of a device, once they are known.
using RateOf = std::function<std::optional<double>(std::size_t device)>;

// A WAV file in `folder` for each channel, called LABEL.wav or LABEL.CHANNEL.wav. Gaps of up to an
// hour are filled with silence; all are counted, and said on standard error at the end.
std::unique_ptr<StreamSink> MakeWavSink(const std::string& folder, RateOf rateOf);

// Sends each sample to a plotter as a line of text, many lines in a datagram of UDP. "HOST:PORT" or
// "HOST" (port 47269). kInvalidArgument when that is no address.
Expected<std::unique_ptr<StreamSink>> MakeTeleplotSink(const std::string& address,
                                                       const TimeWriter& times, bool namesDevice);

// All of `sinks`, one after the other.
std::unique_ptr<StreamSink> MakeTeeSink(std::vector<std::unique_ptr<StreamSink>> sinks);

}  // namespace vexahost::tool
