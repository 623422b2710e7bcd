#include "ReplayCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "Console.h"
#include "Interrupt.h"
#include "Replay.h"
#include "capture/PcapngReader.h"

namespace {

struct ReplayCommandOptions {
    UnitAddress unit;
    std::string file;
    ReplayOptions replay;
    bool json = false;
};

// An answer of the recording beside that of the unit; one of the two may be missing.
struct Comparison {
    std::string origin;
    const Answer* recorded = nullptr;
    const Answer* got = nullptr;

    [[nodiscard]] bool IsSame() const {
        return recorded != nullptr && got != nullptr && recorded->bytes == got->bytes;
    }
    [[nodiscard]] const char* Verdict() const {
        if (recorded == nullptr) return "new";
        if (got == nullptr) return "missing";
        return IsSame() ? "same" : "different";
    }
};

// One after the other as they were recorded; what was not recorded comes last.
std::vector<Comparison> Compare(const AnswerLog& recorded, const AnswerLog& got) {
    std::vector<Comparison> comparisons;
    const auto collect = [&](const AnswerLog& from, const Answer* Comparison::*which) {
        for (const auto& [origin, answers] : from.Answers()) {
            std::vector<Comparison*> places;
            for (auto& comparison : comparisons) {
                if (comparison.origin == origin) places.push_back(&comparison);
            }
            std::vector<Comparison> further;
            for (std::size_t i = 0; i < answers.size(); ++i) {
                if (i >= places.size()) further.push_back({origin, nullptr, nullptr});
                (i < places.size() ? *places[i] : further.back()).*which = &answers[i];
            }
            comparisons.insert(comparisons.end(), further.begin(), further.end());
        }
    };
    collect(recorded, &Comparison::recorded);
    std::ranges::stable_sort(comparisons, {}, [](const auto& each) { return each.recorded->time; });
    collect(got, &Comparison::got);
    return comparisons;
}

void PrintJson(const Comparison& comparison) {
    nlohmann::ordered_json line;
    line["origin"] = comparison.origin;
    line["verdict"] = comparison.Verdict();
    if (comparison.recorded != nullptr) {
        line["recorded"] = {{"text", comparison.recorded->text},
                            {"bytes", vexahost::HexText(comparison.recorded->bytes, 0xFF)}};
    }
    if (comparison.got != nullptr) {
        line["got"] = {{"text", comparison.got->text},
                       {"bytes", vexahost::HexText(comparison.got->bytes, 0xFF)}};
    }
    std::printf("%s\n", line.dump().c_str());
}

void PrintText(const Console& console, const Comparison& comparison) {
    char verdict[16];
    std::snprintf(verdict, sizeof verdict, "%-10s ", comparison.Verdict());
    const Style style = comparison.IsSame() ? Style::kGood : Style::kBad;
    const Answer* const shown =
        comparison.recorded != nullptr ? comparison.recorded : comparison.got;
    console.Line(style, verdict, shown->text, vexahost::HexText(shown->bytes, 24));
    if (comparison.IsSame() || comparison.recorded == nullptr || comparison.got == nullptr) return;
    console.Line(Style::kBad, "       now ", comparison.got->text,
                 vexahost::HexText(comparison.got->bytes, 24));
}

ExitCode RunReplay(const ReplayCommandOptions& options) {
    CatchInterrupts();
    const auto capture = vexahost::ReadWholeFile(options.file);
    if (!capture) return ReportError(capture.Failure());
    const auto recording = ReadRecording(*capture, options.replay.withData);
    if (!recording) {
        auto error = recording.Failure();
        error.message.insert(0, options.file + ": ");
        return ReportError(error);
    }
    Replay replay(options.unit.Factory(), options.replay);
    const auto played = replay.Play(*recording);
    const auto comparisons = Compare(recording->answers, replay.Answers());
    const Console console;
    std::size_t same = 0;
    for (const Comparison& comparison : comparisons) {
        if (comparison.IsSame()) ++same;
        if (options.json) {
            PrintJson(comparison);
        } else {
            PrintText(console, comparison);
        }
    }
    std::fflush(stdout);
    std::fprintf(stderr, "vexa-host: %zu of %zu answers as recorded\n", same, comparisons.size());
    if (!played) return ReportError(played.Failure());
    if (IsInterrupted()) return kExitInterrupted;
    return same == comparisons.size() ? kExitDone : kExitWrongAnswer;
}

}  // namespace

void AddReplayCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "replay", "Send the host's side of a recording to a unit and compare its answers");
    const auto options = std::make_shared<ReplayCommandOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("FILE", options->file, "a recording (pcapng)")->required();
    command->add_flag("--fast", options->replay.fast,
                      "as fast as the answers come, not at the recorded pace");
    command->add_flag("--data", options->replay.withData,
                      "compare what children send as well, block by block");
    command->add_flag("--json", options->json, "an object a line: origin, verdict, recorded, got");
    command->footer(
        "Answers are the replies of service, controller and DAQ. Each is compared with the "
        "recorded\n"
        "one of the same origin and number, byte for byte; only the DAQ's own numbering is left "
        "out.\n"
        "Before each packet the answers that had come by then are waited for, 3 s at most.\n"
        "Exit codes: 0 all as recorded; 1 not so; the others as for every command.\n"
        "Example: vexa-host replay session.pcapng --fast");
    OnChosen(*command, exitCode, [options] { return RunReplay(*options); });
}
