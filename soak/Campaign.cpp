#include "soak/Campaign.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>

namespace vexa::soak {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kUsedUnitGroup[] = "a much used unit ends";

using Count = unsigned long long;

void PrintRow(const std::string& what, const Tally& tally) {
    std::printf("%-28s %7llu %8llu %9llu %6llu\n", what.c_str(), static_cast<Count>(tally.tried),
                static_cast<Count>(tally.reached), static_cast<Count>(tally.survived),
                static_cast<Count>(tally.lost));
}

Json ToJson(const Tally& tally) {
    return {{"tried", tally.tried},
            {"reached", tally.reached},
            {"survived", tally.survived},
            {"lost", tally.lost}};
}

std::vector<Trial> Chosen(const CampaignOptions& options) {
    std::vector<Trial> chosen;
    std::size_t fitting = 0;
    auto all = AllTrials();
    const bool isOne = std::ranges::find(all, options.only, &Trial::name) != all.end();
    for (auto& trial : all) {
        const bool isNamed =
            isOne ? trial.name == options.only : trial.name.starts_with(options.only);
        const bool fits = options.only.empty() ? trial.isShort || !options.isShort : isNamed;
        if (fits && fitting++ % options.every == 0) chosen.push_back(std::move(trial));
    }
    return chosen;
}

// Ends the unit; if that goes wrong, the trial is lost.
void EndUnit(std::unique_ptr<WarmUnit>& warm, const Settings& settings, Outcome& outcome) {
    warm->unit.Terminate();
    const std::string wrong = warm->unit.AwaitEnd(settings.endLimit);
    if (outcome.lost.empty() && !wrong.empty()) {
        outcome.lost = "afterwards the unit " + wrong;
        outcome.lines = warm->unit.LastLines();
    }
    warm.reset();
}

}  // namespace

Campaign::Campaign(CampaignOptions options_)
    : options(std::move(options_)), trials(Chosen(options)), start(Clock::now()) {
    for (const auto& trial : trials) {
        if (tallies.try_emplace(trial.group).second) groups.push_back(trial.group);
    }
    groups.emplace_back(kUsedUnitGroup);
    tallies.try_emplace(kUsedUnitGroup);
}

int Campaign::Run() {
    if (trials.empty()) {
        std::fprintf(stderr, "vexa-soak: no trial begins with \"%s\" (--list shows all)\n",
                     options.only.c_str());
        return 2;
    }
    std::vector<std::thread> workers;
    const auto count = std::min<std::size_t>(options.units, trials.size());
    for (std::size_t number = 0; number < count; ++number) {
        workers.emplace_back([this] { Work(); });
    }
    for (auto& worker : workers) worker.join();
    const MutexLock lock(mutex);
    if (options.json) {
        PrintJson();
    } else {
        PrintTable();
    }
    if (IsInterrupted()) return kInterruptedStatus;
    return Total().lost == 0 ? 0 : 1;
}

std::optional<Campaign::Task> Campaign::Next() {
    const MutexLock lock(mutex);
    if (IsInterrupted()) return std::nullopt;
    const bool isUp = options.time && Clock::now() - start >= *options.time;
    if (isUp) return std::nullopt;
    if (next == trials.size()) {
        if (!options.time) return std::nullopt;
        next = 0;
        ++round;
    }
    return Task{&trials[next++], options.seed + round};
}

void Campaign::Work() {
    std::unique_ptr<WarmUnit> warm;
    while (const auto task = Next()) Account(*task, Perform(*task, warm));
    if (!warm) return;
    static const Trial kUsedUnit{.group = kUsedUnitGroup, .name = "used unit", .isShort = true};
    Outcome outcome;
    EndUnit(warm, options.settings, outcome);
    Account({&kUsedUnit, options.seed}, outcome);
}

Outcome Campaign::Perform(const Task& task, std::unique_ptr<WarmUnit>& warm) const {
    Outcome outcome;
    try {
        if (task.trial->onUnit) return PerformOnUnit(task, warm);
        Random random(task.seed, task.trial->name);
        return task.trial->alone(options.settings, random);
    } catch (const std::exception& error) {  // no unit, or one that no longer answers
        outcome.lost = error.what();
        if (warm) outcome.lines = warm->unit.LastLines();
        warm.reset();
    }
    return outcome;
}

Outcome Campaign::PerformOnUnit(const Task& task, std::unique_ptr<WarmUnit>& warm) const {
    const UnitTrial& trial = *task.trial->onUnit;
    // The worker's unit is used for as long as possible, so that small leaks accumulate.
    const bool spoils = trial.streamsMayStay || trial.afterwards == Afterwards::kQueryMayFail;
    std::unique_ptr<WarmUnit> own;
    std::unique_ptr<WarmUnit>& used = spoils ? own : warm;
    if (!used) used = std::make_unique<WarmUnit>(options.settings);
    Random random(task.seed, task.trial->name);
    const bool reached = trial.run(used->unit, random);
    Outcome outcome = CheckRecovered(*used, trial, options.settings);
    outcome.reached = reached;
    if (spoils || !outcome.lost.empty()) EndUnit(used, options.settings, outcome);
    return outcome;
}

void Campaign::Account(const Task& task, const Outcome& outcome) {
    if (IsInterrupted()) return;  // waits were cut short, so the outcome means nothing
    const Trial& trial = *task.trial;
    const MutexLock lock(mutex);
    Tally& tally = tallies[trial.group];
    ++tally.tried;
    tally.reached += outcome.reached ? 1 : 0;
    const bool survived = outcome.lost.empty();
    ++(survived ? tally.survived : tally.lost);
    if (survived && outcome.took.count() > 0) sessionTimes.push_back(outcome.took);
    reconnects += static_cast<std::uint64_t>(outcome.reconnects);
    mostGrowthKiB = std::max(mostGrowthKiB, outcome.growthKiB);
    FILE* const out = options.json ? stderr : stdout;
    if (!survived) {
        std::fprintf(out, "LOST %s: %s\n", trial.name.c_str(), outcome.lost.c_str());
        for (const auto& line : outcome.lines) std::fprintf(out, "     | %s\n", line.c_str());
        std::fprintf(out, "     again: ./dev soak --only %s --seed %llu\n", trial.name.c_str(),
                     static_cast<unsigned long long>(task.seed));
    } else if (options.verbose) {
        std::fprintf(out, "ok   %s%s", trial.name.c_str(),
                     outcome.reached ? "" : "  (not reached)");
        if (outcome.took.count() > 0) {
            std::fprintf(out, "  new session %lld ms",
                         static_cast<long long>(outcome.took.count()));
        }
        std::fprintf(out, "\n");
    }
    std::fflush(out);
}

Tally Campaign::Total() const {
    Tally total;
    for (const auto& [group, tally] : tallies) {
        total.tried += tally.tried;
        total.reached += tally.reached;
        total.survived += tally.survived;
        total.lost += tally.lost;
    }
    return total;
}

double Campaign::SessionTime(double share) const {
    if (sessionTimes.empty()) return 0;
    std::vector<Milliseconds> sorted = sessionTimes;
    std::ranges::sort(sorted);
    const auto last = static_cast<double>(sorted.size() - 1);
    return std::chrono::duration<double>(sorted[static_cast<std::size_t>(last * share)]).count();
}

void Campaign::PrintTable() const {
    const std::chrono::duration<double> passed = Clock::now() - start;
    std::printf("\n%-28s %7s %8s %9s %6s\n", "what", "tried", "reached", "survived", "lost");
    for (const auto& group : groups) {
        if (tallies.at(group).tried > 0) PrintRow(group, tallies.at(group));
    }
    PrintRow("all", Total());
    std::printf("\n");
    if (!sessionTimes.empty()) PrintSessions();
    std::printf("%.0f s, seed %llu\n", passed.count(), static_cast<Count>(options.seed));
}

void Campaign::PrintSessions() const {
    std::printf("new sessions afterwards: median %.2f s, longest %.2f s, %llu on a second try\n",
                SessionTime(0.5), SessionTime(1), static_cast<Count>(reconnects));
    if (options.settings.watchMemory) {
        std::printf("memory: at most %zu KiB more than before a unit's first trial\n",
                    mostGrowthKiB);
    }
}

void Campaign::PrintJson() const {
    Json result = {{"seconds", std::chrono::duration<double>(Clock::now() - start).count()},
                   {"seed", options.seed}};
    for (const auto& group : groups) result["groups"][group] = ToJson(tallies.at(group));
    result["all"] = ToJson(Total());
    result["new_session_s"] = {{"median", SessionTime(0.5)}, {"longest", SessionTime(1)}};
    result["second_tries"] = reconnects;
    if (options.settings.watchMemory) result["memory_growth_kib"] = mostGrowthKiB;
    std::printf("%s\n", result.dump().c_str());
}

}  // namespace vexa::soak
