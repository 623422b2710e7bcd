// The same as in the Python module (timing.py): a table of blocks and times holds them together.
#include "vexahost/SampleClock.h"

#include <algorithm>
#include <cmath>

namespace vexahost {

namespace {

constexpr double kMemory = 1000;       // blocks that the line goes by
constexpr double kFullNoise = 5;       // times the usual noise: further off, a block counts less
constexpr double kShiftedNoise = 25;   // times the usual noise: a block that is off
constexpr int kShiftedBlocks = 16;     // in a row that are off: the device has moved
constexpr double kJump = 0.5;          // seconds: for so long, or so far
constexpr int kFarBlocks = 3;          // so many far off, so many in a row are enough
constexpr int kLateBlocks = 4;         // in a row that come later by a jump,
constexpr double kLateJumps = 2;       // for so many times its length: they are not only held up
constexpr std::size_t kFewBlocks = 2;  // with which a line has a slope at all
constexpr std::size_t kSureBlocks = 8;
constexpr double kBridgedBlocks = 2;  // that the end of a gap may be from where it should be
constexpr double kLeastPart = 0.2;    // of its usual time that a block spans at least
constexpr double kShortestStep = 1e-7;

constexpr double kTickNoise = 0.4;  // of the device's resolution
constexpr double kLeastNoise = 1e-4;
constexpr double kArrivalNoise = 0.01;  // the unit sends in bursts of about 30 ms

// Relative uncertainty of a rate.
constexpr double kStatedTrust = 0.05;
constexpr double kGuessedTrust = 0.3;
constexpr double kLearnedTrust = 0.001;
constexpr double kShiftedTrust = 0.05;

constexpr double kSlice = 5;         // seconds of which the block with the least delay counts
constexpr double kMostTrend = 1e-3;  // further apart no two clocks are
constexpr double kEarly = 5;         // seconds from the beginning in which the offset moves fast
constexpr double kEarlySlew = 0.05;
constexpr double kSlew = 0.001;

double Median(std::vector<double> values) {
    std::ranges::sort(values);
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

void TimeLine::Begin(double knownStep_, double trust, double noise) {
    *this = {};
    step = knownStep = std::max(knownStep_, kShortestStep);
    const double spread = noise / (trust * step);
    knownWeight = spread * spread;
    limit = kFullNoise * noise;
}

// All sums again, seen from `samples` further on and from the time that the line gives there.
void TimeLine::MoveOrigin(double samples) {
    const double time = step * samples;
    sumXT -= samples * sumT;
    sumXX += samples * (samples * sum - 2 * sumX);
    sumX -= samples * sum;
    sumXT -= time * sumX;
    sumT -= time * sum;
    origin += time;
}

void TimeLine::Skip(double samples) { MoveOrigin(samples); }

double TimeLine::Distance(double samples, double time) const {
    return blocks == 0 ? 0 : time - (origin + step * samples + offset);
}

double TimeLine::Add(double samples, double time) {
    const double distance = Distance(samples, time);
    if (blocks == 0) {
        origin = time;
    } else {
        MoveOrigin(samples);
        constexpr double kKept = 1 - 1 / kMemory;
        for (double* const each : {&sum, &sumX, &sumXX, &sumT, &sumXT}) *each *= kKept;
    }
    ++blocks;
    const bool isFar = blocks > kSureBlocks && std::fabs(distance) > limit;
    const double weight = isFar ? limit / std::fabs(distance) : 1;
    sum += weight;
    sumT += weight * (time - origin);
    const double spread = sumXX + knownWeight;
    const double product = sumXT + knownWeight * knownStep;
    const double determinant = sum * spread - sumX * sumX;
    offset = (sumT * spread - sumX * product) / determinant;
    step = std::max((sum * product - sumX * sumT) / determinant, kShortestStep);
    return distance;
}

// The slope is that of the median of all pairs, so that a slice in which every block was late does
// no harm.
void ClockOffset::UpdateTrend() {
    std::vector<double> slopes;
    for (std::size_t i = 0; i < slices.size(); ++i) {
        for (std::size_t j = i + 1; j < slices.size(); ++j) {
            slopes.push_back((slices[j].difference - slices[i].difference) /
                             (slices[j].device - slices[i].device));
        }
    }
    trend = std::clamp(Median(slopes), -kMostTrend, kMostTrend);
    std::vector<double> differences;
    for (const Least& each : slices) {
        differences.push_back(each.difference - trend * each.device);
    }
    trendAtZero = Median(differences);
}

// Of the least delays, the one at the moment.
double ClockOffset::Target(double device) const {
    if (slices.size() >= kTrendSlices) return trendAtZero + trend * device;
    double least = current->difference;
    for (const Least& each : slices) least = std::min(least, each.difference);
    return least;
}

double ClockOffset::Add(double device, double arrival) {
    const double difference = arrival - device;
    if (!current) {
        began = sliceBegan = last = device;
        current = {device, difference};
        return offset = difference;
    }
    // Earlier than it can be: a clock has jumped. Later: held up, unless it stays so.
    const double delay = difference - offset;
    late = delay > kJump ? late + 1 : 0;
    if (late == 1) lateSince = arrival;
    if (delay < -kJump || (late >= kLateBlocks && arrival - lateSince >= kLateJumps * kJump)) {
        *this = {};
        return Add(device, arrival);
    }
    // A new block can move the line's end back.
    const double elapsed = std::max(device - last, 0.0);
    last = device;
    if (device - sliceBegan >= kSlice) {
        if (slices.size() == kSlices) slices.erase(slices.begin());
        slices.push_back(*current);
        current = {device, difference};
        sliceBegan = device;
        if (slices.size() >= kTrendSlices) UpdateTrend();
    }
    if (difference < current->difference) current = {device, difference};
    const bool isEarly = device - began < kEarly;
    const double target = Target(device);
    const double most = elapsed * (isEarly ? kEarlySlew : kSlew);
    offset += std::clamp(target - offset, -most, most);
    return offset;
}

// True when the device's time was set back.
bool SampleClock::Unwrap(double& device) {
    const double back = lastDevice.value_or(device) - device;
    lastDevice = device;
    const bool isWrap = options.wrap > 0 && back > options.wrap / 2;
    if (isWrap) wrapped += options.wrap;
    if (!isWrap && back > kJump) wrapped = 0;
    device += wrapped;
    return !isWrap && back > kJump;
}

double SampleClock::Noise() const {
    return lastDevice ? std::max(kTickNoise * options.tick, kLeastNoise) : kArrivalNoise;
}

void SampleClock::BeginLine(double observed, std::size_t samples, double trust) {
    const auto count = static_cast<double>(samples);
    const double noise = Noise();
    if (learned) {
        line.Begin(*learned, trust, noise);
    } else if (options.rate) {
        line.Begin(1 / *options.rate, kStatedTrust, noise);
    } else {
        const bool hasSlope = line.Blocks() >= kFewBlocks;
        line.Begin(hasSlope ? line.Step() : observed / count, kGuessedTrust, noise);
    }
    off = 0;
}

// Where blocks are missing whose number and usual size fit the time that has passed, the line goes
// on; else it begins anew.
bool SampleClock::BridgesGap(unsigned lost, double samples, double observed) {
    if (line.Blocks() < kFewBlocks) return false;
    const double missing = lost * samples;
    const double most = std::max(kShiftedNoise * Noise(), kBridgedBlocks * line.Step() * samples);
    if (std::fabs(line.Distance(missing + samples, observed)) > most) return false;
    line.Skip(missing);
    return true;
}

SampleTimes SampleClock::Place(std::uint8_t sequence, double arrival, std::optional<double> device,
                               std::size_t samples) {
    const bool isFirst = !hasSamples;
    const auto lost = static_cast<std::uint8_t>(sequence - lastSequence.value_or(sequence) - 1);
    const bool follows = lastSequence && lost == 0;
    lastSequence = sequence;
    if (line.Blocks() >= kSureBlocks) learned = line.Step();
    if (samples == 0) {
        if (!follows) line = {};
        return {arrival, 0, false};
    }
    const auto count = static_cast<double>(samples);
    double observed = arrival;
    bool isBack = false;
    if (device) {
        isBack = Unwrap(*device);
        observed = *device + options.tick / 2;  // a count of whole ticks: the middle of one
    }
    const bool isBridged = !follows && BridgesGap(lost, count, observed);
    const double distance = line.Distance(count, observed);
    const bool isSure = line.Blocks() >= kSureBlocks;
    // What was held up comes at once, and late: only what stays off has moved.
    if (!isSure || std::fabs(distance) <= kShiftedNoise * Noise()) {
        off = 0;
    } else {
        off = distance > 0 ? std::max(off, 0) + 1 : std::min(off, 0) - 1;
        if (std::abs(off) == 1) offSince = observed;
    }
    const bool isFar = std::fabs(distance) > std::max(kJump, kFarBlocks * line.Step() * count);
    const bool isShifted =
        std::abs(off) >= (isFar ? kFarBlocks : kShiftedBlocks) && observed - offSince >= kJump;
    const bool goesOn = line.Blocks() > 0 && !isBack && !isShifted;
    if (!goesOn || (!follows && !isBridged)) {
        const double age = std::max(arrival - end, kShortestStep);
        const double passed = device ? std::min(std::max(observed, kShortestStep), age) : age;
        BeginLine(passed, samples, isShifted ? kShiftedTrust : kLearnedTrust);
        if (isBack) clocks = {};
    }
    line.Add(count, observed);
    const double usual = line.Step() * count;
    const double finished = device ? line.End() + clocks.Add(line.End(), arrival) : line.End();
    // A single sample is where its block ends: it cannot be drawn out over the jump.
    const bool hasJumped = device && samples > 1 && finished - usual - end > kJump;
    const bool continues = goesOn && follows && !hasJumped;
    const double begin = continues ? end : std::max(end, finished - usual);
    end = std::max(finished, begin + kLeastPart * usual);
    const double step = (end - begin) / count;
    hasSamples = true;
    return {begin + step, step, !continues && !isFirst};
}

void SampleClock::Reopen(double opened) {
    if (line.Blocks() >= kSureBlocks) learned = line.Step();
    line = {};
    clocks = {};
    lastSequence.reset();
    lastDevice.reset();
    hasSamples = false;
    wrapped = 0;
    off = 0;
    end = std::max(end, opened);
}

std::optional<double> SampleClock::Rate() const {
    if (line.Blocks() >= kSureBlocks) return 1 / line.Step();
    if (learned) return 1 / *learned;
    if (options.rate || line.Blocks() < kFewBlocks) return options.rate;
    return 1 / line.Step();
}

}  // namespace vexahost
