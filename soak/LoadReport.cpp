#include "LoadReport.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace vexa::soak {

namespace {

using Json = nlohmann::ordered_json;

void PrintText(const LoadResult& result) {
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    const LoadCounts& counts = result.counts;
    std::printf("ten children (nine streams and the controller) for %.0f s\n", result.seconds);
    if (!result.failure.empty()) std::printf("ended: %s\n", result.failure.c_str());
    std::printf("from the unit  %8.0f B/s, %.1f %% of 10,000 bytes every 30 ms\n", result.fromUnit,
                100 * result.fromUnit / kMostBytesPerSecond);
    std::printf("to the unit    %8.0f B/s\n", result.toUnit);
    std::printf("               (whole tunnel packets; frame headers not counted)\n");
    std::printf("longest pause  %8lld ms\n", static_cast<long long>(result.longestPause.count()));
    std::printf("blocks %llu, echoes %llu of %llu, replies of the controller %llu\n",
                number(counts.blocks), number(counts.echoes), number(result.echoesSent),
                number(counts.replies));
    std::printf("sequence gaps %llu, missing %llu, duplicates %llu, wrong content %llu\n",
                number(counts.gaps), number(counts.missing), number(counts.duplicates),
                number(counts.wrong));
    std::printf("taken by the service but not received %llu, refused by it %llu\n",
                number(result.Lost()), number(result.refused));
    std::printf("%s\n", result.IsClean() ? "every byte came once, in order" : "LOST");
}

void PrintJson(const LoadResult& result) {
    const LoadCounts& counts = result.counts;
    const Json json = {{"seconds", result.seconds},
                       {"from_unit_bytes_per_s", result.fromUnit},
                       {"share", result.fromUnit / kMostBytesPerSecond},
                       {"to_unit_bytes_per_s", result.toUnit},
                       {"longest_pause_ms", result.longestPause.count()},
                       {"blocks", counts.blocks},
                       {"echoes_sent", result.echoesSent},
                       {"echoes", counts.echoes},
                       {"replies", counts.replies},
                       {"gaps", counts.gaps},
                       {"missing", counts.missing},
                       {"duplicates", counts.duplicates},
                       {"wrong", counts.wrong},
                       {"lost", result.Lost()},
                       {"refused", result.refused},
                       {"failure", result.failure},
                       {"clean", result.IsClean()}};
    std::printf("%s\n", json.dump().c_str());
}

}  // namespace

std::uint64_t LoadResult::Lost() const {
    const auto came = counts.blocks + counts.echoes;
    return taken > came ? taken - came : 0;
}

bool LoadResult::IsClean() const {
    return failure.empty() && counts.Faults() == 0 && refused == 0 &&
           taken == counts.blocks + counts.echoes && counts.echoes == echoesSent &&
           counts.replies == queries + openings;
}

void PrintLoad(const LoadResult& result, bool json) {
    if (json) {
        PrintJson(result);
    } else {
        PrintText(result);
    }
}

}  // namespace vexa::soak
