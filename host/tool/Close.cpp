#include <cstdio>

#include "tool/Connection.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

namespace {

struct CloseOptions {
    UnitAddress unit;
    std::string what;
};

ExitCode RunClose(const CloseOptions& options) {
    if (options.what != "controller") {
        return ReportError({ErrorKind::kInvalidArgument,
                            "\"" + options.what +
                                "\": only the controller can be closed from outside the session "
                                "that opened a device"});
    }
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    const auto closed = (*client)->CloseController();
    if (!closed) return ReportError(closed.error());
    std::printf("controller is closed\n");
    return kExitDone;
}

}  // namespace

Verb CloseVerb() {
    const auto options = std::make_shared<CloseOptions>();
    return {.name = "close",
            .summary = "Close the controller with all devices, which hands the hardware back",
            .options = WithUnitOptions(options->unit, {{.name = "WHAT",
                                                        .placeholder = " ",
                                                        .help = "\"controller\"",
                                                        .target = &options->what,
                                                        .required = true}}),
            .notes =
                "For a unit that did not see its last host leave. Devices alone can be closed in "
                "the\n"
                "session that opened them: vexa-host shell.\n"
                "Example: vexa-host close controller",
            .run = [options] { return RunClose(*options); }};
}

}  // namespace vexahost::tool
