// Says when the next block of a device is due: the nth block n/rate seconds after the start, so
// that lateness never adds up.
#pragma once

#include <cstdint>

#include "model/Clock.h"

namespace vexa::unit {

// Not thread-safe.
class Pacer {
  public:
    // `rate`: blocks per second; with 0 nothing is ever due.
    explicit Pacer(double rate_) : rate(rate_) {}

    // The first block is due 1/rate seconds after `now`.
    void Start(TimePoint now);

    // Goes on at another rate; what was due before is no more.
    void ChangeRate(double rate_, TimePoint now) {
        rate = rate_;
        if (start != kNever) Start(now);
    }

    // When the next block is due; kNever before Start.
    [[nodiscard]] TimePoint Due() const;

    // The block that was due has been made. What is overdue by more than a second is given up, so
    // that a stalled receiver is not flooded afterwards.
    void Advance(TimePoint now);

  private:
    double rate;
    TimePoint start = kNever;
    std::uint64_t made = 0;  // blocks since start
};

}  // namespace vexa::unit
