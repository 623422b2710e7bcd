// Changes of the unit at set times.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "model/Runtime.h"
#include "model/Scenario.h"

namespace vexa::unit {

// Performs the steps of a scenario's timeline. One thread at a time.
class Timeline {
  public:
    // Carries out a control request.
    using Perform = std::function<void(const std::string& request)>;

    // The steps count from now.
    Timeline(const std::vector<TimelineStep>& steps, Perform perform);

    // Performs each step when it is due; returns when the timeline is over.
    void Run();

  private:
    struct Pending {
        TimePoint due;
        TimelineStep step;
        std::uint32_t repeated = 0;
    };

    Perform perform;
    std::vector<Pending> pending;
};

}  // namespace vexa::unit
