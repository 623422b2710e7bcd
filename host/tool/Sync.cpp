#include <cstdio>

#include "tool/Connection.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

namespace {

ExitCode RunSync(const UnitAddress& unit) {
    auto client = ConnectAndSync(unit);
    if (!client) return ReportError(client.error());
    std::printf("in step with the unit at %s\n", unit.Text().c_str());
    return kExitDone;
}

}  // namespace

Verb SyncVerb() {
    const auto unit = std::make_shared<UnitAddress>();
    return {.name = "sync",
            .summary = "Connect, bring the unit's packet parser in step, and leave again",
            .options = WithUnitOptions(*unit),
            .notes = "Example: vexa-host sync --dir build/unit",
            .run = [unit] { return RunSync(*unit); }};
}

}  // namespace vexahost::tool
