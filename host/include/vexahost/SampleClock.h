// The times of samples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vexahost {

// The times of the samples in one block: `first`, `first + step`, ... in seconds.
struct SampleTimes {
    double first;
    double step;
    bool afterGap;  // samples are missing before the first, or a clock has jumped
};

// A line through the times of the newest blocks over the index of their last samples: where a block
// ends, and how long a sample takes. Old blocks count less and less, blocks that are far off count
// little. One thread at a time.
class TimeLine {
  public:
    // Begins anew. `step` is what is known of the seconds from one sample to the next, `trust` its
    // relative uncertainty; `noise` is how far times usually lie from the line, in seconds.
    void Begin(double step, double trust, double noise);

    // Adds a block of `samples` whose last sample was seen at `time`. Returns how far that is from
    // where the line has expected it, in seconds; 0 for the first block.
    double Add(double samples, double time);

    // The next block comes `samples` later than the end of the newest: those between are missing.
    void Skip(double samples);

    // How far a block of `samples` more at `time` would be from the line.
    [[nodiscard]] double Distance(double samples, double time) const;

    [[nodiscard]] double End() const { return origin + offset; }  // of the newest block
    [[nodiscard]] double Step() const { return step; }            // seconds, from sample to sample
    [[nodiscard]] std::size_t Blocks() const { return blocks; }   // since Begin

  private:
    void MoveOrigin(double samples);

    // Sums of weights, x, x * x, t and x * t of the blocks. x counts samples and t seconds from the
    // newest block: no number grows with the length of the stream.
    double sum = 0, sumX = 0, sumXX = 0, sumT = 0, sumXT = 0;
    double knownStep = 0, knownWeight = 0;
    double origin = 0;  // t = 0
    double offset = 0;  // of the line from it at x = 0
    double step = 0;
    double limit = 0;  // seconds from the line within which a block counts fully
    std::size_t blocks = 0;
};

// How far the host's clock is ahead of a device's. The way through the unit delays each block by up
// to 40 ms, but some by less: those with the least delay tell how the clocks drift. One thread at a
// time.
class ClockOffset {
  public:
    // A block that the device finished at `device` has arrived at `arrival`. Returns the seconds to
    // add to the device's time: it changes only slowly, except after a jump of one of the clocks.
    double Add(double device, double arrival);

  private:
    struct Least {  // of one slice of time
        double device;
        double difference;
    };
    [[nodiscard]] double Target(double device) const;
    void UpdateTrend();

    static constexpr std::size_t kSlices = 12;
    static constexpr std::size_t kTrendSlices = 3;  // from so many on there is a trend
    std::vector<Least> slices;                      // the newest complete ones, the oldest first
    std::optional<Least> current;
    double sliceBegan = 0;
    double trend = 0;        // seconds per second
    double trendAtZero = 0;  // difference at device time 0 by the trend
    double began = 0;
    double last = 0;       // device time of the newest block
    double offset = 0;     // in use
    int late = 0;          // blocks in a row that have come much later than by the offset
    double lateSince = 0;  // arrival of the first of them
};

// Gives each sample of one device a time: on the host's clock, the last sample of a block at the
// moment at which the device finished the block. So where a device takes `rate` samples a second
// from its opening on, its first is 1/rate after that.
//
// Where blocks carry the device's own time, samples follow it, and it is compared with the arrivals
// for its distance from the host's clock alone. Else samples follow the arrivals; they are later
// then than the truth by the usual way through the unit. Times always go forward. A jump begins the
// line anew, and so does a gap in the sequence numbers that does not fit the time that has passed;
// the rate that was measured stays. One thread at a time.
class SampleClock {
  public:
    struct Options {
        double opened = 0;                // when it was asked to open: no sample is earlier
        std::optional<double> rate = {};  // samples per second, as stated
        double tick = 0;                  // resolution of the device's time, in seconds
        double wrap = 0;                  // seconds after which it begins again at 0; 0: never
    };

    explicit SampleClock(const Options& options_) : options(options_), end(options_.opened) {}

    // The times of a block's samples. `device` is its own time, in seconds. A block with no samples
    // has to be given as well, for its number.
    SampleTimes Place(std::uint8_t sequence, double arrival, std::optional<double> device,
                      std::size_t samples);

    // The device was opened anew at this time, after a close or a lost link.
    void Reopen(double opened);

    // Samples per second: as measured, until then as stated; nothing before it is known.
    [[nodiscard]] std::optional<double> Rate() const;

  private:
    bool Unwrap(double& device);
    [[nodiscard]] double Noise() const;
    bool BridgesGap(unsigned lost, double samples, double observed);
    void BeginLine(double observed, std::size_t samples, double trust);

    Options options;
    TimeLine line;
    ClockOffset clocks;
    std::optional<double> learned;  // seconds from one sample to the next
    std::optional<std::uint8_t> lastSequence;
    std::optional<double> lastDevice;  // as it stands in the block
    bool hasSamples = false;           // since the opening
    double wrapped = 0;                // seconds that wraps of the device's time have added
    double end;                        // time of the last sample
    int off = 0;          // blocks in a row that were far from the line, negative: before it
    double offSince = 0;  // the first of them
};

}  // namespace vexahost
