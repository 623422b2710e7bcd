// Changes of the unit at set times.
#pragma once

#include <condition_variable>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Runtime.h"
#include "model/Scenario.h"

namespace vexa::unit {

// Performs the steps of a scenario's timeline, counted from construction, on a thread of its own.
class Timeline {
  public:
    // Carries out a control request.
    using Perform = std::function<void(const std::string& request)>;

    Timeline(const std::vector<TimelineStep>& steps, Perform perform);
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;
    ~Timeline();

  private:
    struct Pending {
        TimePoint due;
        TimelineStep step;
        std::uint32_t repeated = 0;
    };

    void Run();
    // Waits until a step is due and returns its requests; nothing when the timeline is over.
    [[nodiscard]] std::optional<std::vector<TimelineRequest>> AwaitStep();

    const Perform perform;
    std::vector<Pending> pending;  // the timeline's thread only
    Mutex mutex;
    std::condition_variable_any changed;
    bool stopping VEXA_GUARDED_BY(mutex) = false;
    std::thread thread;
};

}  // namespace vexa::unit
