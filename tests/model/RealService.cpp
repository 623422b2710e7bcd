#include "model/RealService.h"

#include <cstdlib>
#include <iterator>
#include <utility>

namespace vexa::test {

RealService::RealService() : console(stdout), script(ScriptedLibraries::Get()) {
    ScriptedLibraries::Reset();
    for (std::uint32_t type = 0; type < 12; ++type) {
        const std::string name(1, static_cast<char>('a' + type));
        script.types[name] = type;
        script.attached[type] = "device " + name;
    }
    script.daqAnswer = DaqSyncAnswer();
    stdout = ::open_memstream(&printed, &printedSize);
    // The queued link takes the place of the gadget's, as soon as the service has none yet.
    static QueuedHostLink* queued;
    queued = &link;
    service.StartUp([] {
        HostLink_Use(&queued->state);
        return 1;
    });
    script.TakeCalls();
    script.writes.clear();
    std::fflush(stdout);
    printedSeen = printedSize;
}

RealService::~RealService() {
    std::fclose(stdout);
    stdout = console;
    std::free(printed);  // NOLINT(cppcoreguidelines-no-malloc): as open_memstream wants it
}

Outcome RealService::Take(const Event& event) {
    Outcome outcome;
    outcome.taken = Apply(event);
    outcome.toHost.resize(
        static_cast<std::size_t>(link.Device().outputBuffer->GetBytesAvailable()));
    link.Device().outputBuffer->Read(outcome.toHost.data(),
                                     static_cast<std::int32_t>(outcome.toHost.size()));
    outcome.calls = script.TakeCalls();
    outcome.writes = std::exchange(script.writes, {});
    std::fflush(stdout);
    outcome.printed.assign(printed + printedSeen, printedSize - printedSeen);
    printedSeen = printedSize;
    return outcome;
}

std::int32_t RealService::Apply(const Event& event) {
    static constexpr const char* kApplications[] = {"DAQ", "SPLASH", "FGEN"};
    const bool on = event.number != 0;
    switch (event.kind) {
        case EventKind::kHostSends:
            link.HostSends(event.bytes);
            break;
        case EventKind::kPasses:
            for (std::uint32_t pass = 0; pass < event.number; ++pass) service.Pass();
            break;
        case EventKind::kStreamSends:
            if (script.streams.empty()) break;
            return script.Send(std::next(script.streams.begin(),
                                         static_cast<long>(event.number % script.streams.size()))
                                   ->first,
                               event.bytes);
        case EventKind::kAnswer:
            script.Answer(kApplications[event.number], event.command, event.response);
            break;
        case EventKind::kLink:
            link.Device().linkUp = on;
            break;
        case EventKind::kDevice:
            script.attached.erase(event.number);
            if (event.command != 0) {
                script.attached[event.number] =
                    "device " + std::string(1, static_cast<char>('a' + event.number));
            }
            break;
        case EventKind::kStreamsOpen:
            script.streamsOpen = on;
            break;
        case EventKind::kWritesSucceed:
            script.writesSucceed = on;
            break;
        case EventKind::kPlainOpens:
            script.deviceOpens = on;
            break;
        case EventKind::kCommandsSucceed:
            script.commandResult = on ? 1 : 0;
            break;
        case EventKind::kAnswersAtOnce:
            script.answers.erase(event.command);
            if (on) script.answers[event.command] = event.response;
            break;
    }
    return 0;
}

}  // namespace vexa::test
