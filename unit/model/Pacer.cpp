#include "model/Pacer.h"

namespace vexa::unit {

namespace {
constexpr std::chrono::seconds kMaxBacklog{1};
}

void Pacer::Start(TimePoint now) {
    start_ = now;
    made_ = 0;
}

TimePoint Pacer::Due() const {
    if (start_ == kNever || rate_ <= 0) return kNever;
    const std::chrono::duration<double> offset(static_cast<double>(made_ + 1) / rate_);
    // A fraction of a block a century would not fit the clock.
    constexpr std::chrono::hours kFarAway{24 * 365 * 100};
    if (offset > kFarAway) return kNever;
    return start_ + std::chrono::duration_cast<Clock::duration>(offset);
}

void Pacer::Advance(TimePoint now) {
    ++made_;
    if (Due() < now - kMaxBacklog) Start(now - kMaxBacklog);
}

}  // namespace vexa::unit
