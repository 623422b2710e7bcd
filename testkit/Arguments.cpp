#include "testkit/Arguments.h"

#include <algorithm>
#include <utility>

namespace vexa::testkit {

namespace {

bool IsOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

const Command* FindCommand(const Command& in, const std::string& name) {
    const auto found = std::ranges::find(in.commands, name, &Command::name);
    return found == in.commands.end() ? nullptr : &*found;
}

// Whether the option `word`, of `command` or of one below it, is followed by its value.
bool TakesNext(const Command& command, const std::string& word) {
    const auto option = std::ranges::find(command.options, word, &Command::Option::name);
    if (option != command.options.end()) return option->takesValue;
    return std::ranges::any_of(command.commands,
                               [&](const Command& below) { return TakesNext(below, word); });
}

// How many letters have to be changed, added, left out or exchanged with the next.
std::size_t Distance(const std::string& from, const std::string& to) {
    std::vector<std::vector<std::size_t>> cost(from.size() + 1,
                                               std::vector<std::size_t>(to.size() + 1));
    for (std::size_t row = 0; row <= from.size(); ++row) {
        for (std::size_t column = 0; column <= to.size(); ++column) {
            if (row == 0 || column == 0) {
                cost[row][column] = row + column;
                continue;
            }
            const bool same = from[row - 1] == to[column - 1];
            auto& least = cost[row][column];
            least = std::min({cost[row - 1][column] + 1, cost[row][column - 1] + 1,
                              cost[row - 1][column - 1] + (same ? 0U : 1U)});
            if (row > 1 && column > 1 && from[row - 1] == to[column - 2] &&
                from[row - 2] == to[column - 1]) {
                least = std::min(least, cost[row - 2][column - 2] + 1);
            }
        }
    }
    return cost.back().back();
}

// "; did you mean NAME?" for the name that is most like `word`; empty when none is.
std::string Suggestion(const std::string& word, const std::vector<std::string>& names) {
    constexpr std::size_t kMost = 2;
    const auto distance = [&](const std::string& name) { return Distance(word, name); };
    const auto nearest = std::ranges::min_element(names, {}, distance);
    if (nearest == names.end()) return "";
    const bool isLike = distance(*nearest) <= std::min(kMost, word.size() - 1);
    return isLike ? "; did you mean " + *nearest + "?" : "";
}

std::vector<std::string> CommandNames(const Command& of) {
    std::vector<std::string> names;
    for (const auto& command : of.commands) names.push_back(command.name);
    return names;
}

std::string Joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

}  // namespace

std::vector<std::string> Arranged(const Command& program, const std::vector<std::string>& words) {
    std::vector<std::string> arranged;
    std::vector<std::string> early;  // options that wait for their command
    const Command* at = &program;
    auto word = words.begin();
    for (; word != words.end() && !at->commands.empty(); ++word) {
        if (*word == "--") continue;
        if (IsOption(*word)) {
            early.push_back(*word);
            if (TakesNext(*at, *word) && word + 1 != words.end()) early.push_back(*++word);
            continue;
        }
        const Command* const next = FindCommand(*at, *word);
        if (next == nullptr) break;
        arranged.push_back(*word);
        at = next;
    }
    arranged.insert(arranged.end(), early.begin(), early.end());
    arranged.insert(arranged.end(), word, words.end());
    return arranged;
}

std::string WhatIsWrong(const Command& program, const std::vector<std::string>& words,
                        const std::vector<std::string>& extras) {
    const Command* at = &program;
    std::string path;
    for (auto word = words.begin(); word != words.end() && !at->commands.empty(); ++word) {
        if (IsOption(*word)) {
            if (TakesNext(*at, *word) && word + 1 != words.end()) ++word;
            continue;
        }
        const Command* const next = FindCommand(*at, *word);
        path += *word + " ";
        if (next == nullptr) {
            const auto suggestion = Suggestion(*word, CommandNames(*at));
            path.pop_back();
            return "no such command: " + path +
                   (suggestion.empty() ? "; there are " + Joined(CommandNames(*at), ", ")
                                       : suggestion);
        }
        at = next;
    }
    if (extras.empty()) {
        if (at->commands.empty()) return "";
        if (!path.empty()) path.replace(path.size() - 1, 1, ": ");
        return path + "a command is required: " + Joined(CommandNames(*at), ", ");
    }
    std::vector<std::string> left = extras;
    std::vector<std::string> ordered;
    for (const auto& word : words) {
        const auto found = std::ranges::find(left, word);
        if (found == left.end()) continue;
        left.erase(found);
        ordered.push_back(word);
    }
    std::vector<std::string> options;
    for (const auto& option : at->options) options.push_back(option.name);
    const auto& known = ordered.empty() ? extras : ordered;
    return "not expected: " + Joined(known, " ") +
           (IsOption(known.front()) ? Suggestion(known.front(), options) : "");
}

}  // namespace vexa::testkit
