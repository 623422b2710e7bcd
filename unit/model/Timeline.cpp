#include "model/Timeline.h"

#include <algorithm>
#include <chrono>

namespace vexa::unit {

using std::chrono::milliseconds;

Timeline::Timeline(const std::vector<TimelineStep>& steps, Perform perform_)
    : perform(std::move(perform_)) {
    const TimePoint start = Clock::now();
    for (const auto& step : steps) pending.push_back({start + milliseconds(step.atMs), step});
    thread = StartQuietThread([this] { Run(); });
}

Timeline::~Timeline() {
    {
        const MutexLock lock(mutex);
        stopping = true;
    }
    changed.notify_one();
    thread.join();
}

std::optional<std::vector<TimelineRequest>> Timeline::AwaitStep() {
    // Steps that are due at the same time keep their order.
    const auto next = std::ranges::min_element(pending, {}, &Pending::due);
    if (next == pending.end()) return std::nullopt;
    {
        MutexLock lock(mutex);
        while (!stopping && Clock::now() < next->due) changed.wait_until(lock, next->due);
        if (stopping) return std::nullopt;
    }
    auto requests = next->step.requests;
    const auto& [atMs, repeatMs, times, all] = next->step;
    if (repeatMs && (times == 0 || next->repeated < times)) {
        ++next->repeated;
        next->due += milliseconds(*repeatMs);
    } else {
        pending.erase(next);
    }
    return requests;
}

void Timeline::Run() {
    while (const auto requests = AwaitStep()) {
        for (const auto& request : *requests) perform(request.line);
    }
}

}  // namespace vexa::unit
