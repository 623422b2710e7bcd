// Runs all trials, on several units at a time, and reports the results.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Mutex.h"
#include "soak/Trial.h"

namespace vexa::soak {

struct CampaignOptions {
    Settings settings;
    bool isShort = false;
    std::optional<Milliseconds> time;  // repeats all trials for so long; nothing: one round
    std::string only;                  // trials whose names begin with this
    std::size_t every = 1;             // only every nth of them
    std::uint64_t seed = 1;            // random seed of the first round; each round has its own
    unsigned units = 4;                // at a time
    bool json = false;
    bool verbose = false;
};

struct Tally {
    std::uint64_t tried = 0;
    std::uint64_t reached = 0;  // trials whose fault took effect
    std::uint64_t survived = 0;
    std::uint64_t lost = 0;
};

class Campaign {
  public:
    explicit Campaign(CampaignOptions options);

    // Runs the trials; prints each lost one at once and a table at the end. Returns the exit
    // status: 0, 1 when a trial was lost, 2 when there is no such trial.
    int Run();

  private:
    struct Task {
        const Trial* trial;
        std::uint64_t seed;
    };

    // The next trial, starting again with the first while there is time; nothing at the end.
    std::optional<Task> Next();
    void Work();
    Outcome Perform(const Task& task, std::unique_ptr<WarmUnit>& warm) const;
    Outcome PerformOnUnit(const Task& task, std::unique_ptr<WarmUnit>& warm) const;
    void Account(const Task& task, const Outcome& outcome);
    void PrintTable() const VEXA_REQUIRES(mutex);
    void PrintSessions() const VEXA_REQUIRES(mutex);
    void PrintJson() const VEXA_REQUIRES(mutex);
    [[nodiscard]] Tally Total() const VEXA_REQUIRES(mutex);
    // In seconds: `share` of the new sessions took no longer.
    [[nodiscard]] double SessionTime(double share) const VEXA_REQUIRES(mutex);

    const CampaignOptions options;
    std::vector<Trial> trials;
    std::vector<std::string> groups;  // in the order of the trials
    const std::chrono::steady_clock::time_point start;

    Mutex mutex;
    std::size_t next VEXA_GUARDED_BY(mutex) = 0;
    std::uint64_t round VEXA_GUARDED_BY(mutex) = 0;
    std::map<std::string, Tally> tallies VEXA_GUARDED_BY(mutex);
    std::vector<Milliseconds> sessionTimes VEXA_GUARDED_BY(mutex);  // of the new sessions
    std::uint64_t reconnects VEXA_GUARDED_BY(mutex) = 0;
    std::size_t mostGrowthKiB VEXA_GUARDED_BY(mutex) = 0;
};

}  // namespace vexa::soak
