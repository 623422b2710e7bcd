// One use of a function of the libraries: hit by the faults that are set for it, and written down.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "model/CallLine.h"
#include "model/Export.h"
#include "model/FaultTable.h"
#include "model/Journal.h"

namespace vexa::unit {

struct CallOutcome {
    std::int64_t result = 0;
    std::string note = {};  // for the journal
};

// Puts the journal's line together as the call's arguments become known, and then performs it.
class VEXA_UNIT_EXPORT LibraryCall {
  public:
    using Work = std::function<CallOutcome(const FaultEffect&)>;

    // `target`: the device or application that the call concerns, if it does.
    explicit LibraryCall(Call call, std::string_view target = "");

    [[nodiscard]] CallLine& Line() { return line; }

    // Counts the use, and does `work` unless a fault is in the way; returns its result, or
    // `failure` when a fault says so. Waits for as long as faults say, also past signals.
    [[nodiscard]] std::int64_t Perform(std::int64_t failure, const Work& work);

    // Writes nothing down, unless a fault hits.
    void KeepQuiet() { quiet = true; }

  private:
    void WriteDown(const CallOutcome& outcome, const FaultEffect& effect);

    const Call call;
    const std::string target;
    CallLine line;
    bool quiet = false;
};

// Text that tells which faults hit: "fault 1", or "faults 1 2".
[[nodiscard]] VEXA_UNIT_EXPORT std::string FaultText(const FaultEffect& effect);

}  // namespace vexa::unit
