// What a campaign prints at its end.
#include <algorithm>
#include <cstdio>

#include "Campaign.h"

namespace vexa::soak {

namespace {

using Clock = std::chrono::steady_clock;

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

}  // namespace

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

// Of the new sessions, in seconds; `share` of them were no longer.
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
