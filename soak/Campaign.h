// All trials, on several units at a time, and the account of them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "soak/Trial.h"

namespace vexa::soak {

struct CampaignOptions {
    Settings settings;
    bool isShort = false;
    std::optional<Milliseconds> time;  // rounds until it is up; nothing: one round
    std::string only;                  // trials whose names begin so
    std::size_t every = 1;             // takes only every nth of them
    std::uint64_t seed = 1;            // of the first round; each has its own
    unsigned units = 4;                // at a time
    bool json = false;
    bool verbose = false;
};

struct Tally {
    std::uint64_t tried = 0;
    std::uint64_t reached = 0;  // of them: what was to go wrong did
    std::uint64_t survived = 0;
    std::uint64_t lost = 0;
};

class Campaign {
  public:
    explicit Campaign(CampaignOptions options);

    // Runs and prints: each trial that is lost at once, the table at the end. The exit status: 0, 1
    // when something was lost, 2 when there is no such trial.
    int Run();

  private:
    struct Task {
        const Trial* trial;
        std::uint64_t seed;
    };

    // The trial that is next, over and over again while there is time; nothing at the end.
    std::optional<Task> Next();
    void Work();
    Outcome Perform(const Task& task, std::unique_ptr<WarmUnit>& warm) const;
    Outcome PerformOnUnit(const Task& task, std::unique_ptr<WarmUnit>& warm) const;
    void Account(const Task& task, const Outcome& outcome);
    void PrintTable() const;
    void PrintSessions() const;
    void PrintJson() const;
    [[nodiscard]] Tally Total() const;
    [[nodiscard]] double SessionTime(double share) const;

    const CampaignOptions options;
    std::vector<Trial> trials;
    const std::chrono::steady_clock::time_point start;

    std::mutex mutex;  // guards all below; Run reads them when the workers have ended
    std::size_t next = 0;
    std::uint64_t round = 0;
    std::vector<std::string> groups;  // in the order of the trials
    std::map<std::string, Tally> tallies;
    std::vector<Milliseconds> sessionTimes;  // of the new sessions afterwards
    std::uint64_t reconnects = 0;
    std::size_t mostGrowthKiB = 0;
};

}  // namespace vexa::soak
