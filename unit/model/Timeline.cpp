#include "model/Timeline.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace vexa::unit {

using std::chrono::milliseconds;

Timeline::Timeline(const std::vector<TimelineStep>& steps, Perform perform_)
    : perform(std::move(perform_)) {
    const TimePoint start = Clock::now();
    for (const auto& step : steps) pending.push_back({start + milliseconds(step.atMs), step});
}

void Timeline::Run() {
    while (!pending.empty()) {
        // Steps that are due at the same time keep their order.
        const auto next = std::ranges::min_element(pending, {}, &Pending::due);
        std::this_thread::sleep_until(next->due);
        const TimelineStep& step = next->step;
        for (const auto& request : step.requests) perform(request.line);
        if (step.repeatMs && (step.times == 0 || next->repeated < step.times)) {
            ++next->repeated;
            next->due += milliseconds(*step.repeatMs);
        } else {
            pending.erase(next);
        }
    }
}

}  // namespace vexa::unit
