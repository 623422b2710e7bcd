// vexa-soak: lets a unit recover from faults, and loads the link to its limit.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "soak/Campaign.h"
#include "soak/Load.h"

namespace {

using vexa::soak::CampaignOptions;
using vexa::soak::LoadOptions;

constexpr int kWrongUse = 2;

const CLI::Range kSomeTime(0.01, 10000.0, "TIME");

// vexa-unit, in the folder of this program.
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
        "Makes everything go wrong on a unit that can go wrong, and checks that the service "
        "recovers.",
        "vexa-soak");
    program.add_option("--minutes", minutes, "repeat all trials for so long (default: one round)")
        ->option_text("N")
        ->check(kSomeTime);
    program.add_flag("--short", campaign.isShort,
                     "run each kind of trial only once or a few times");
    program
        .add_option("--only", campaign.only,
                    "run the trial of this name, or those whose names begin with it")
        ->option_text("NAME");
    program.add_option("--every", campaign.every, "run only every nth of them")
        ->option_text("N")
        ->check(CLI::Range(1, 1000));
    program.add_flag("--list", lists, "print the names of all trials");
    program
        .add_option("--seed", campaign.seed,
                    "random seed of the first round (default 1); each round uses the next one")
        ->option_text("N");
    program.add_option("--units", campaign.units, "number of units at a time (default 4)")
        ->option_text("N")
        ->check(CLI::Range(1, 32));
    program
        .add_option("--session", sessionSeconds,
                    "time limit for a new session after each trial (default 2)")
        ->option_text("SECONDS")
        ->check(kSomeTime);
    program.add_option("--end", endSeconds, "time limit for the end of a unit (default 5)")
        ->option_text("SECONDS")
        ->check(kSomeTime);
    program.add_flag("--no-memory", ignoresMemory, "do not check for memory growth");
    program.add_flag("--json", campaign.json, "print the result as JSON");
    program.add_flag("--verbose", campaign.verbose, "print each trial");
    program.footer(
        "Exit status: 0 all recovered; 1 a trial was lost; 2 wrong usage; 130 interrupted.");

    CLI::App* const loading = program.add_subcommand(
        "load", "Run ten children at the highest rate that the link carries");
    loading->add_option("--minutes", loadMinutes, "how long (default 1)")
        ->option_text("N")
        ->check(kSomeTime);
    loading->add_option("--share", load.share, "percent of 10,000 bytes every 30 ms (default 96)")
        ->option_text("PERCENT")
        ->check(CLI::Range(1.0, 200.0));
    loading->add_flag("--json", load.json, "print the result as JSON");

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
    vexa::soak::CatchInterrupts();
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
