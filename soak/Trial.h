// A trial on a unit, and its outcome.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "soak/HostSession.h"
#include "soak/SoakUnit.h"
#include "soak/Support.h"

namespace vexa::soak {

inline constexpr Milliseconds kConnectPatience{3000};
inline constexpr std::uint32_t kStallMs = 1000;  // how long a faulty call takes

struct Settings {
    std::string unitProgram;          // "vexa-unit"
    Milliseconds sessionLimit{2000};  // for a new session, from the cable's return
    Milliseconds endLimit{5000};      // for the end of the unit
    Milliseconds startLimit{10000};   // for the start
    Milliseconds idleLimit{10000};    // for releasing everything that a session used
    bool watchMemory = true;
    std::size_t memoryAllowanceKiB = 256;  // above the use of the warmed-up unit
};

struct Outcome {
    std::string lost;      // why the trial is lost; empty: survived
    bool reached = true;   // the fault took effect
    Milliseconds took{0};  // of the new session
    int reconnects = 0;    // of the new session
    std::size_t growthKiB = 0;
    std::vector<std::string> lines = {};  // last lines of output, if it is lost
};

// A unit that has had a few sessions, and what it used after them.
struct WarmUnit {
    SoakUnit unit;
    ProcessFigures idle;

    // Throws std::runtime_error when not even these sessions work.
    explicit WarmUnit(const Settings& settings);
};

enum class Afterwards {
    kSessionWorks,  // the unit works as before
    kQueryMayFail,  // except its session with the DAQ application; the unit is discarded
};

// A trial on a running unit.
struct UnitTrial {
    std::function<bool(SoakUnit& unit, Random& random)> run;  // whether the fault took effect
    Afterwards afterwards = Afterwards::kSessionWorks;
    bool streamsMayStay = false;  // the library does not close them; the unit is discarded
    bool returnsAtOnce = false;   // the cable may return before the service has noticed
};

struct Trial {
    std::string group;
    std::string name;  // by which it can be repeated
    bool isShort;      // part of the short form
    // One of the two: a trial on a unit that runs already, or one with units of its own.
    std::optional<UnitTrial> onUnit = {};
    std::function<Outcome(const Settings& settings, Random& random)> alone = nullptr;
};

// Clears faults and checks that everything is as it was before the trial. The cable must be out.
[[nodiscard]] Outcome CheckRecovered(WarmUnit& warm, const UnitTrial& trial,
                                     const Settings& settings);

// How often the fault `id` has hit so far.
[[nodiscard]] std::uint64_t HitsOf(SoakUnit& unit, const Json& id);

// All trials, in the order of the report.
[[nodiscard]] std::vector<Trial> AllTrials();

// Each adds the trials of a group.
void AddFaultTrials(std::vector<Trial>& trials);
void AddCableTrials(std::vector<Trial>& trials);
void AddApplicationTrials(std::vector<Trial>& trials);
void AddStartTrials(std::vector<Trial>& trials);
void AddEndTrials(std::vector<Trial>& trials);

}  // namespace vexa::soak
