// The only file that uses the argument parser: including it takes seconds of each compilation.
#include "tool/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

#include "testkit/Arguments.h"
#include "testkit/Completion.h"
#include "tool/Connection.h"
#include "tool/Parse.h"

namespace vexahost::tool {

namespace {

// As the parser's own, but options show only what a person types for them, and "NAME..." stands for
// a name that can be repeated.
class HelpText final : public CLI::Formatter {
  public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string& text = option->get_option_text();
        return text.empty() || text == " " ? "" : " " + text;
    }

    // Without the value that a flag has by itself.
    std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
        const std::string name = CLI::Formatter::make_option_name(option, isPositional);
        return name.substr(0, name.find('{'));
    }

    std::string make_option_usage(const CLI::Option* option) const override {
        std::string text = option->get_name(true);
        if (option->get_expected_max() > 1) text += "...";
        return option->get_required() ? text : "[" + text + "]";
    }
};

bool IsPositional(const Option& option) { return !option.name.starts_with('-'); }

// Adds an option to the parser by the type of its target.
struct Adder {
    CLI::App& command;
    const Option& option;

    CLI::Option* operator()(bool* value) const {
        return command.add_flag(option.name, *value, option.help);
    }
    CLI::Option* operator()(std::string* value) const {
        const auto isGiven = [](const std::string& text) {
            return std::string(text.empty() ? "it is empty" : "");
        };
        return command.add_option(option.name, *value, option.help)->check(isGiven);
    }
    CLI::Option* operator()(const FlagWithValue& flag) const {
        return command.add_flag(option.name + "{" + flag.bare + "}", *flag.value, option.help);
    }
    CLI::Option* operator()(const Number& number) const {
        return command.add_option(option.name, *number.value, option.help)
            ->check(CLI::Range(number.least, number.most));
    }
    CLI::Option* operator()(const WordList& list) const {
        return command.add_option(option.name, *list.words, option.help)
            ->expected(option.required ? 1 : 0, static_cast<int>(list.most));
    }
    CLI::Option* operator()(std::vector<std::string>* values) const {
        auto* added = command.add_option(option.name, *values, option.help);
        return IsPositional(option) ? added : added->allow_extra_args(false);
    }
    CLI::Option* operator()(std::optional<std::chrono::milliseconds>* duration) const {
        const auto parse = [name = option.name, duration](const std::string& text) {
            *duration = ParseDuration(text);
            if (*duration) return;
            throw CLI::ValidationError(name + " " + text,
                                       "expected a time such as 3s, 500ms, 2m or 1h, up to 1000h");
        };
        return command.add_option_function<std::string>(option.name, parse, option.help);
    }
};

void AddVerb(CLI::App& program, const Verb& verb, ExitCode& exitCode) {
    auto* command = program.add_subcommand(verb.name, verb.summary);
    std::map<std::string, CLI::Option*> added;
    for (const Option& option : verb.options) {
        auto* entry = std::visit(Adder{*command, option}, option.target);
        entry->required(option.required);
        if (!option.placeholder.empty()) entry->option_text(option.placeholder);
        for (const std::string& other : option.excludes) entry->excludes(added.at(other));
        if (!option.needs.empty()) entry->needs(added.at(option.needs));
        added[option.name] = entry;
    }
    if (verb.restIsCommand) command->positionals_at_end();
    command->footer(verb.notes);
    command->callback([&exitCode, &verb] { exitCode = verb.run(); });
}

// The program as testkit/Arguments.h needs it.
vexa::testkit::Command CommandOf(const Program& program) {
    vexa::testkit::Command all{.name = program.name};
    for (const Verb& verb : program.verbs) {
        vexa::testkit::Command command{.name = verb.name, .help = verb.summary};
        for (const Option& option : verb.options) {
            if (IsPositional(option)) {
                command.arguments.push_back({option.name, true, option.placeholder, option.help});
                continue;
            }
            const bool takesValue = !std::holds_alternative<bool*>(option.target) &&
                                    !std::holds_alternative<FlagWithValue>(option.target);
            // An option's short name comes first.
            for (std::size_t from = 0; from < option.name.size();) {
                const std::size_t comma = std::min(option.name.find(',', from), option.name.size());
                command.options.push_back({option.name.substr(from, comma - from), takesValue,
                                           option.placeholder, option.help});
                from = comma + 1;
            }
        }
        all.commands.push_back(std::move(command));
    }
    return all;
}

// The unit that the words name, or the default one, can tell the names of its devices.
std::vector<std::string> ValuesOf(const vexa::testkit::Command& /*command*/,
                                  const vexa::testkit::Command::Option& option,
                                  const std::vector<std::string>& words) {
    std::vector<std::string> names;
    if (option.name != "NAME" && option.value != "NAME") return names;
    UnitAddress unit;
    const auto given = std::ranges::find(words, "--dir");
    if (given != words.end() && given + 1 != words.end()) unit.directory = *(given + 1);
    for (const VirtualDevice& device : ListDevices(unit)) names.push_back(device.name);
    return names;
}

// `words` with the value of each FlagWithValue joined to it, as the parser wants it.
std::vector<std::string> Joined(const Program& program, const std::vector<std::string>& words) {
    const auto isValueOf = [&](const std::string& word, const std::string& name) {
        for (const Verb& verb : program.verbs) {
            for (const Option& option : verb.options) {
                const auto* const flag = std::get_if<FlagWithValue>(&option.target);
                if (flag != nullptr && option.name == name) return flag->isValue(word);
            }
        }
        return false;
    };
    std::vector<std::string> joined;
    for (const std::string& word : words) {
        if (!joined.empty() && isValueOf(word, joined.back())) {
            joined.back() += "=" + word;
        } else {
            joined.push_back(word);
        }
    }
    return joined;
}

}  // namespace

ExitCode RunProgram(const Program& program, const std::vector<std::string>& given) {
    const std::vector<std::string> words = Joined(program, given);
    ExitCode exitCode = kExitDone;
    CLI::App parser(program.summary, program.name);
    parser.set_version_flag("--version", program.name + " " VEXA_VERSION, "Print the version");
    parser.require_subcommand(1);
    parser.formatter(std::make_shared<HelpText>());
    parser.footer(program.notes);
    for (const Verb& verb : program.verbs) AddVerb(parser, verb, exitCode);
    const auto tree = CommandOf(program);
    if (vexa::testkit::AnswerPackaging(tree, words, ValuesOf)) return kExitDone;
    auto arranged = vexa::testkit::Arranged(tree, words);
    std::ranges::reverse(arranged);  // as the parser wants them
    try {
        parser.parse(arranged);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return static_cast<ExitCode>(parser.exit(error));
        const auto wrong = vexa::testkit::WhatIsWrong(tree, words, parser.remaining(true));
        return ReportError({ErrorKind::kInvalidArgument, (wrong.empty() ? error.what() : wrong) +
                                                             " (vexa-host --help says more)"});
    }
    return exitCode;
}

}  // namespace vexahost::tool
