// vexa-soak: what a unit survives, and what it carries.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "Campaign.h"
#include "HelpText.h"
#include "Interrupt.h"
#include "Load.h"

namespace {

using vexa::soak::CampaignOptions;
using vexa::soak::LoadOptions;

constexpr int kWrongUse = 2;

const CLI::Range kSomeTime(0.01, 10000.0, "TIME");

// The unit's program beside this one.
std::string UnitProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "vexa-unit";
}

int List() {
    for (const auto& trial : vexa::soak::AllTrials()) std::printf("%s\n", trial.name.c_str());
    return 0;
}

int Run(int argc, char** argv) {
    CampaignOptions campaign;
    campaign.settings.unitProgram = UnitProgram();
    LoadOptions load;
    load.unitProgram = UnitProgram();
    double minutes = 0;
    double loadMinutes = 1;
    double sessionSeconds = 2;
    double endSeconds = 5;
    bool ignoresMemory = false;
    bool lists = false;

    CLI::App program(
        "Lets all that can go wrong on a unit go wrong, and checks that the service goes on.",
        "vexa-soak");
    program.formatter(std::make_shared<HelpText>());
    program
        .add_option("--minutes", minutes, "rounds of all trials until the time is up (one round)")
        ->option_text("N")
        ->check(kSomeTime);
    program.add_flag("--short", campaign.isShort, "only each kind of trial once or a few times");
    program
        .add_option("--only", campaign.only,
                    "the trial of this name, or those whose names begin so")
        ->option_text("NAME");
    program.add_option("--every", campaign.every, "of these only every nth")
        ->option_text("N")
        ->check(CLI::Range(1, 1000));
    program.add_flag("--list", lists, "prints the names of all trials");
    program
        .add_option("--seed", campaign.seed, "of what is drawn by lot (1); each round has the next")
        ->option_text("N");
    program.add_option("--units", campaign.units, "units at a time (4)")
        ->option_text("N")
        ->check(CLI::Range(1, 32));
    program.add_option("--session", sessionSeconds, "time for a new session afterwards (2)")
        ->option_text("SECONDS")
        ->check(kSomeTime);
    program.add_option("--end", endSeconds, "time for the end of a unit (5)")
        ->option_text("SECONDS")
        ->check(kSomeTime);
    program.add_flag("--no-memory", ignoresMemory, "does not watch the memory");
    program.add_flag("--json", campaign.json, "prints the result as JSON");
    program.add_flag("--verbose", campaign.verbose, "prints each trial");
    program.footer(
        "Exit codes: 0 all survived; 1 something was lost; 2 wrong usage; 130 interrupted.");

    CLI::App* const loading =
        program.add_subcommand("load", "ten children at the most that the link carries");
    loading->formatter(std::make_shared<HelpText>());
    loading->add_option("--minutes", loadMinutes, "how long (1)")
        ->option_text("N")
        ->check(kSomeTime);
    loading->add_option("--share", load.share, "percent of 10,000 bytes every 30 ms (96)")
        ->option_text("PERCENT")
        ->check(CLI::Range(1.0, 200.0));
    loading->add_flag("--json", load.json, "prints the result as JSON");

    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return program.exit(error);
        std::fprintf(stderr, "vexa-soak: %s (vexa-soak --help says more)\n", error.what());
        return kWrongUse;
    }
    const auto milliseconds = [](double seconds) {
        return vexa::soak::Milliseconds(static_cast<std::int64_t>(seconds * 1000));
    };
    CatchInterrupts();
    if (*loading) {
        load.time = milliseconds(loadMinutes * 60);
        return RunLoad(load);
    }
    if (lists) return List();
    if (minutes > 0) campaign.time = milliseconds(minutes * 60);
    campaign.settings.sessionLimit = milliseconds(sessionSeconds);
    campaign.settings.endLimit = milliseconds(endSeconds);
    campaign.settings.watchMemory = !ignoresMemory;
    return vexa::soak::Campaign(std::move(campaign)).Run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-soak: %s\n", error.what());
        return 1;
    }
}
