#include <algorithm>
#include <cstdio>
#include <memory>

#include "tool/Connection.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"
#include "tool/recording/Replay.h"
#include "vexahost/Recording.h"

namespace vexahost::tool {

namespace {

struct ReplayVerbOptions {
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

// All answers in the order of the recording; those that were not recorded come last.
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
    JsonObject line;
    line.Add("origin", comparison.origin).Add("verdict", comparison.Verdict());
    const auto add = [&](const char* name, const Answer* answer) {
        if (answer == nullptr) return;
        line.Add(name, JsonObject()
                           .Add("text", answer->text)
                           .Add("bytes", HexText(answer->bytes, vexa::kMaxPacketSize)));
    };
    add("recorded", comparison.recorded);
    add("got", comparison.got);
    line.PrintLine();
}

void PrintText(const Console& console, const Comparison& comparison) {
    char verdict[16];
    std::snprintf(verdict, sizeof verdict, "%-10s ", comparison.Verdict());
    const Style style = comparison.IsSame() ? Style::kGood : Style::kBad;
    const Answer* const shown =
        comparison.recorded != nullptr ? comparison.recorded : comparison.got;
    console.Line(style, verdict, shown->text, HexText(shown->bytes, 24));
    if (comparison.IsSame() || comparison.recorded == nullptr || comparison.got == nullptr) return;
    console.Line(Style::kBad, "       now ", comparison.got->text,
                 HexText(comparison.got->bytes, 24));
}

ExitCode RunReplay(const ReplayVerbOptions& options) {
    CatchInterrupts();
    const auto recording = ReadRecording(options.file, options.replay.withData);
    if (!recording) return ReportError(recording.error());
    Replay replay(options.unit.Factory(), options.replay);
    const auto played = replay.Play(*recording);
    if (!played || IsInterrupted()) replay.LeaveInOrder();
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
    if (!played) return ReportError(played.error());
    if (IsInterrupted()) return kExitInterrupted;
    return same == comparisons.size() ? kExitDone : kExitWrongAnswer;
}

}  // namespace

Verb ReplayVerb() {
    const auto options = std::make_shared<ReplayVerbOptions>();
    return {.name = "replay",
            .summary = "Send the host's side of a recording to a unit and compare its answers",
            .options = WithUnitOptions(
                options->unit,
                {{"FILE", "", "a recording (pcapng); - for standard input", &options->file, true},
                 {"--fast", "", "as fast as the answers come, not at the recorded pace",
                  &options->replay.fast},
                 {"--data", "", "compare what children send as well, block by block",
                  &options->replay.withData},
                 {"--json", "", "a JSON object for each answer: origin, verdict, recorded, got",
                  &options->json}}),
            .notes =
                "Answers are the replies of service, controller and DAQ. Each is compared with the "
                "recorded\n"
                "one of the same origin and number, byte for byte; only the DAQ's own numbering is "
                "left "
                "out.\n"
                "Each packet is sent once the answers recorded before it have come, after 3 s at "
                "most.\n"
                "Exit codes: 0 all as recorded; 1 not so; the others as for every command.\n"
                "Example: vexa-host replay session.pcapng --fast",
            .run = [options] { return RunReplay(*options); }};
}

}  // namespace vexahost::tool
