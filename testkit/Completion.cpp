#include "testkit/Completion.h"

#include <algorithm>
#include <cstdio>

namespace vexa::testkit {

namespace {

// The first paragraph of a help text, in one line.
std::string Brief(const std::string& help) {
    std::string text = help.substr(0, help.find("\n\n"));
    std::ranges::replace(text, '\n', ' ');
    while (text.ends_with(':') || text.ends_with(' ')) text.pop_back();
    return text;
}

std::string Offer(const std::string& word, const std::string& start, const std::string& help) {
    return word.starts_with(start) ? word + "\t" + Brief(help) + "\n" : "";
}

// Candidates for a value.
std::string OfferValues(const Command& command, const Command::Option& option,
                        const std::vector<std::string>& words, const ValuesOf& valuesOf) {
    std::string offers;
    for (const std::string& value : valuesOf(command, option, words)) {
        offers += Offer(value, words.back(), "");
    }
    if (option.value.find("DIR") != std::string::npos) offers += ":folders\n";
    if (option.value.find("FILE") != std::string::npos ||
        option.value.find("PATH") != std::string::npos || option.name == "FILE") {
        offers += ":files\n";
    }
    return offers;
}

// mdoc reads some characters as its own.
std::string ManualText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\') escaped += "\\e";
        if (c == '\'' && (escaped.empty() || escaped.back() == '\n')) escaped += "\\&";
        if (c == '.' && (escaped.empty() || escaped.back() == '\n')) escaped += "\\&";
        if (c == '"') escaped += "\\(dq";
        if (c != '\\' && c != '"') escaped += c;
    }
    return escaped;
}

// A list entry: "--name VALUE", then its help.
std::string ManualEntry(const Command::Option& option) {
    const bool isFlag = option.name.starts_with('-');
    std::string entry = isFlag ? ".It Fl " + option.name.substr(1) : ".It Ar " + option.name;
    if (isFlag && !option.value.empty()) entry += " Ar " + option.value;
    return entry + "\n" + ManualText(Brief(option.help)) + ".\n";
}

using Options = std::vector<Command::Option>;

bool IsAmong(const Command::Option& option, const Options& options) {
    return std::ranges::any_of(options, [&](const Command::Option& other) {
        return other.name == option.name && other.help == option.help;
    });
}

// The options that at least half of the commands have.
Options CommonOptions(const Command& program) {
    Options common;
    for (const Command& command : program.commands) {
        for (const auto& option : command.options) {
            const auto having = std::ranges::count_if(program.commands, [&](const Command& other) {
                return IsAmong(option, other.options);
            });
            const bool isCommon = 2 * static_cast<std::size_t>(having) >= program.commands.size();
            if (isCommon && !IsAmong(option, common)) common.push_back(option);
        }
    }
    return common;
}

std::string ManualList(const Options& arguments, const Options& options, const Options& without) {
    std::string entries;
    for (const auto& argument : arguments) entries += ManualEntry(argument);
    for (const auto& option : options) {
        if (!IsAmong(option, without)) entries += ManualEntry(option);
    }
    return entries.empty() ? "" : ".Bl -tag -width Ds\n" + entries + ".El\n";
}

std::string ManualOf(const Command& command, const std::string& path, const Options& common) {
    std::string text;
    const std::string full = path + (path.empty() ? "" : " ") + command.name;
    if (command.commands.empty() || !command.options.empty()) {
        text += ".Ss " + full + "\n" + ManualText(Brief(command.help)) + ".\n" +
                ManualList(command.arguments, command.options, common);
    }
    for (const Command& below : command.commands) text += ManualOf(below, full, common);
    return text;
}

}  // namespace

std::string Candidates(const Command& program, const std::vector<std::string>& words,
                       const ValuesOf& valuesOf) {
    if (words.empty()) return "";
    const Command* at = &program;
    const Command::Option* awaited = nullptr;  // option whose value comes next
    std::size_t arguments = 0;
    for (auto word = words.begin(); word + 1 != words.end(); ++word) {
        if (*word == "--") return ":files\n";  // another program's command line
        if (awaited != nullptr) {
            awaited = nullptr;
        } else if (word->starts_with('-')) {
            const auto option = std::ranges::find(at->options, *word, &Command::Option::name);
            if (option != at->options.end() && option->takesValue) awaited = &*option;
        } else if (const auto next = std::ranges::find(at->commands, *word, &Command::name);
                   next != at->commands.end()) {
            at = &*next;
            arguments = 0;
        } else {
            ++arguments;
        }
    }
    if (awaited != nullptr) return OfferValues(*at, *awaited, words, valuesOf);
    const std::string& start = words.back();
    std::string offers;
    if (start.starts_with('-')) {
        offers += Offer("--help", start, "Print the help and exit");
        for (const auto& option : at->options) offers += Offer(option.name, start, option.help);
        return offers;
    }
    for (const auto& command : at->commands) offers += Offer(command.name, start, command.help);
    if (at->arguments.empty()) return offers;
    // The last argument may be repeated.
    const std::size_t index = std::min(arguments, at->arguments.size() - 1);
    return offers + OfferValues(*at, at->arguments[index], words, valuesOf);
}

std::string ManualSection(const Command& program) {
    const Options common = CommonOptions(program);
    std::string text = ".Sh OPTIONS\n";
    if (!common.empty()) text += "Most commands take:\n" + ManualList({}, common, {});
    for (const Command& command : program.commands) text += ManualOf(command, "", common);
    return text;
}

bool AnswerPackaging(const Command& program, const std::vector<std::string>& words,
                     const ValuesOf& valuesOf) {
    if (words.empty()) return false;
    if (words.front() == "--complete") {
        std::fputs(Candidates(program, {words.begin() + 1, words.end()}, valuesOf).c_str(), stdout);
        return true;
    }
    if (words.size() != 1 || words.front() != "--manual") return false;
    std::fputs(ManualSection(program).c_str(), stdout);
    return true;
}

}  // namespace vexa::testkit
