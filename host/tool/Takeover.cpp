#include <cinttypes>
#include <cstdio>

#include "tool/Connection.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

struct TakeoverOptions {
    UnitAddress unit;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool json = false;
};

void PrintCounts(const ClientStatistics& counts, Clock::duration held, bool json) {
    const double seconds = std::chrono::duration<double>(held).count();
    if (json) {
        JsonObject()
            .Add("daq_packets", counts.daqPackets)
            .Add("held_s", seconds)
            .Add("wrong_checksums", counts.daqWrongChecksums)
            .PrintLine();
        return;
    }
    std::printf("held for %.1f s: %" PRIu64 " DAQ packets, %" PRIu64 " with a wrong checksum\n",
                seconds, counts.daqPackets, counts.daqWrongChecksums);
}

ExitCode RunTakeover(const TakeoverOptions& options) {
    auto client = ConnectWithController(options.unit, {.queueCapacity = 1});
    if (!client) return ReportError(client.error());
    if (const auto taken = (*client)->TakeDaqOver(); !taken) return ReportError(taken.error());
    if (!options.json) {
        std::printf("the DAQ is this host's%s\n", options.duration ? "" : " until Ctrl-C");
        std::fflush(stdout);
    }
    const auto start = Clock::now();
    const auto held = Hold(**client, options.duration);
    PrintCounts((*client)->Statistics(), Clock::now() - start, options.json);
    if (!held) return ReportError(held.error());
    // Hands the hardware back in order; leaving alone would do it as well, but say nothing.
    SetLeaving(true);
    const auto closed = (*client)->CloseController();
    return closed ? kExitDone : ReportError(closed.error());
}

}  // namespace

Verb TakeoverVerb() {
    const auto options = std::make_shared<TakeoverOptions>();
    return {
        .name = "takeover",
        .summary =
            "Take the acquisition hardware from the unit's applications, hold it, give it back",
        .options = WithUnitOptions(
            options->unit,
            {{"--for", "TIME", "how long to hold it (until Ctrl-C)", &options->duration},
             {"--json", "", "the figures at the end as a JSON object", &options->json}}),
        .notes =
            "The applications have 10 s to let go. To see what the DAQ measures: vexa-host stream "
            "--daq\n"
            "Example: vexa-host takeover --for 10s",
        .run = [options] { return RunTakeover(*options); }};
}

}  // namespace vexahost::tool
