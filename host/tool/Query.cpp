#include <cstdio>

#include "tool/Connection.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

namespace {

struct QueryOptions {
    UnitAddress unit;
    bool json = false;
};

// Leaves by disconnecting: closing the controller would tell the applications to take the hardware
// back, although nobody took it from them.
ExitCode RunQuery(const QueryOptions& options) {
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    client->get_deleter().closesController = false;
    const auto holds = (*client)->QueryDaqApplication();
    if (!holds) return ReportError(holds.error());
    const bool isHolder = *holds == DaqApplication::kHoldsHardware;
    if (options.json) {
        JsonObject().Add("daq_application_holds", isHolder).PrintLine();
    } else {
        std::printf("the unit's DAQ application %s the acquisition hardware\n",
                    isHolder ? "holds" : "does not hold");
    }
    return kExitDone;
}

}  // namespace

Verb QueryVerb() {
    const auto options = std::make_shared<QueryOptions>();
    return {.name = "query",
            .summary = "Ask whether the unit's own DAQ application holds the acquisition hardware",
            .options = WithUnitOptions(
                options->unit, {{"--json", "", "the answer as a JSON object", &options->json}}),
            .notes = "Example: vexa-host query --dir build/unit",
            .run = [options] { return RunQuery(*options); }};
}

}  // namespace vexahost::tool
