// How a command of the shell has ended, and words for it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Expected.h"

/// The words of a command line.
using Words = std::vector<std::string>;

struct Outcome {
    std::optional<vexahost::Error> error;  // nothing: it went well
    std::string text;                      // to be shown; may have several lines, or none
    bool skipsRound = false;               // a tried command has lost the link
    bool quits = false;

    static Outcome Good(std::string text = {}) { return {std::nullopt, std::move(text)}; }
    static Outcome Failed(vexahost::Error error) { return {std::move(error), {}}; }

    /// Wrong words in a command; nothing was done.
    static Outcome Wrong(std::string why) {
        return Failed({vexahost::ErrorKind::kInvalidArgument, std::move(why)});
    }

    /// A check or an expectation that does not hold.
    static Outcome Unmet(std::string why) {
        return Failed({vexahost::ErrorKind::kRefused, std::move(why)});
    }
};

/// One of the outcomes that "expect" knows: a kind of error, or none.
struct ExpectedOutcome {
    std::optional<vexahost::ErrorKind> kind;
    std::optional<int> code;  // of a refusal; nothing: any

    [[nodiscard]] bool IsMetBy(const Outcome& outcome) const;
};

/// Takes "done", "refused [CODE]", "timeout", "lost", "violation" or "unconnected" off the front of
/// `words`; nothing when they begin with none of these.
std::optional<ExpectedOutcome> TakeExpectedOutcome(Words& words);

/// Cuts a line into words at blanks; double quotes keep blanks in a word, and "#" at the start of a
/// word begins a comment. Nothing for a quote without its end.
std::optional<Words> SplitLine(std::string_view line);
