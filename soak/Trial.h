// One thing that is tried on a unit, and what came of it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "soak/HostSession.h"
#include "soak/SoakUnit.h"
#include "soak/Support.h"

namespace vexa::soak {

struct Settings {
    std::string unitProgram;          // "vexa-unit"
    Milliseconds sessionLimit{2000};  // for a new session from the cable's return
    Milliseconds endLimit{5000};      // for the end of the unit
    Milliseconds startLimit{10000};   // for the start
    Milliseconds idleLimit{10000};    // for all that a session used to be given back
    bool watchMemory = true;
    std::size_t memoryAllowanceKiB = 256;  // above what the warmed-up unit had
};

struct Outcome {
    std::string lost;      // why the trial is lost; empty: survived
    bool reached = true;   // what was to go wrong did
    Milliseconds took{0};  // of the new session
    int reconnects = 0;    // of the new session
    std::size_t growthKiB = 0;
    std::vector<std::string> lines = {};  // what the unit printed last, of a lost one
};

// A unit that has held a few sessions, and what it held when they were over.
struct WarmUnit {
    SoakUnit unit;
    ProcessFigures idle;

    // Throws std::runtime_error when no session works even now.
    explicit WarmUnit(const Settings& settings);
};

enum class Afterwards {
    kSessionWorks,  // the unit goes on as if nothing had been
    kQueryMayFail,  // the same, but for its session with the DAQ application; it is of no use then
};

// A trial on a unit that runs.
struct UnitTrial {
    std::function<bool(SoakUnit& unit, Random& random)> run;  // whether it went wrong as it was to
    Afterwards afterwards = Afterwards::kSessionWorks;
    bool streamsMayStay = false;  // the library does not close them; the unit is of no use then
    bool returnsAtOnce = false;   // the cable comes back before the unit may have seen it go
};

struct Trial {
    std::string group;
    std::string name;  // under which it can be repeated
    bool isShort;      // part of the short form
    // One of the two: on a unit that is at hand, or with units of its own.
    std::optional<UnitTrial> onUnit = {};
    std::function<Outcome(const Settings& settings, Random& random)> alone = nullptr;
};

// Whether all is as it was before the trial, with the cable out and faults set or not.
[[nodiscard]] Outcome CheckRecovered(WarmUnit& warm, const UnitTrial& trial,
                                     const Settings& settings);

// How often the fault that was set under `id` has hit so far.
[[nodiscard]] std::uint64_t HitsOf(SoakUnit& unit, const Json& id);

// All that can be tried, in the order of the report.
[[nodiscard]] std::vector<Trial> AllTrials();

// Each group's trials.
void AddFaultTrials(std::vector<Trial>& trials);
void AddCableTrials(std::vector<Trial>& trials);
void AddApplicationTrials(std::vector<Trial>& trials);
void AddStartTrials(std::vector<Trial>& trials);
void AddEndTrials(std::vector<Trial>& trials);

}  // namespace vexa::soak
