#include "model/Pacer.h"

namespace vexa::unit {

namespace {
constexpr std::chrono::seconds kMaxBacklog{1};
}

void Pacer::Start(TimePoint now) {
    start = now;
    made = 0;
}

TimePoint Pacer::Due() const {
    if (start == kNever || rate <= 0) return kNever;
    const std::chrono::duration<double> offset(static_cast<double>(made + 1) / rate);
    // A fraction of a block a century would not fit the clock.
    constexpr std::chrono::hours kFarAway{24 * 365 * 100};
    if (offset > kFarAway) return kNever;
    return start + std::chrono::duration_cast<Clock::duration>(offset);
}

void Pacer::Advance(TimePoint now) {
    ++made;
    if (Due() < now - kMaxBacklog) Start(now - kMaxBacklog);
}

}  // namespace vexa::unit
