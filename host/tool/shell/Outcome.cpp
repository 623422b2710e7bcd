#include "Outcome.h"

#include <algorithm>

#include "../Number.h"

namespace {

using vexahost::ErrorKind;

struct OutcomeName {
    const char* name;
    std::optional<ErrorKind> kind;
};

constexpr OutcomeName kNames[] = {
    {"done", std::nullopt},
    {"refused", ErrorKind::kRefused},
    {"timeout", ErrorKind::kTimeout},
    {"lost", ErrorKind::kLinkLost},
    {"violation", ErrorKind::kProtocolViolation},
    {"unconnected", ErrorKind::kCannotConnect},
};

}  // namespace

bool ExpectedOutcome::IsMetBy(const Outcome& outcome) const {
    if (!outcome.error || !kind) return !outcome.error && !kind;
    if (outcome.error->kind != *kind) return false;
    // A check that does not hold is no refusal of the unit: it has no code.
    if (*kind == ErrorKind::kRefused && outcome.error->code == 0) return false;
    return !code || outcome.error->code == *code;
}

std::optional<ExpectedOutcome> TakeExpectedOutcome(Words& words) {
    if (words.empty()) return std::nullopt;
    const auto* const found =
        std::ranges::find(kNames, std::string_view(words.front()),
                          [](const OutcomeName& entry) { return entry.name; });
    if (found == std::end(kNames)) return std::nullopt;
    words.erase(words.begin());
    ExpectedOutcome expected{found->kind, std::nullopt};
    if (found->kind == ErrorKind::kRefused && !words.empty()) {
        expected.code = ParseNumber<int>(words.front());
        if (expected.code) words.erase(words.begin());
    }
    return expected;
}

std::optional<Words> SplitLine(std::string_view line) {
    Words words;
    bool inWord = false;
    bool inQuotes = false;
    for (const char c : line) {
        const bool isBlank = c == ' ' || c == '\t' || c == '\r';
        if (c == '#' && !inWord) break;
        if (isBlank && !inQuotes) {
            inWord = false;
            continue;
        }
        if (!inWord) words.emplace_back();
        inWord = true;
        if (c == '"') {
            inQuotes = !inQuotes;
        } else {
            words.back() += c;
        }
    }
    if (inQuotes) return std::nullopt;
    return words;
}
