#include <cstdio>

#include "tool/Connection.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

namespace {

struct OpenOptions {
    UnitAddress unit;
    std::vector<std::string> names;
    std::optional<Milliseconds> duration;  // nothing: until interrupted
    bool json = false;
};

void PrintOpened(const std::string& name, ChildId id, const Expected<Done>& opened, bool json) {
    if (json) {
        JsonObject line;
        line.Add("child", id).Add("device", name);
        if (!opened) line.Add("error", opened.error().message);
        line.Add("opened", opened.has_value()).PrintLine();
    } else if (opened) {
        std::printf("%s is open as child 0x%X\n", name.c_str(), id);
    }
    std::fflush(stdout);
}

ExitCode RunOpen(const OpenOptions& options) {
    auto client = ConnectWithController(options.unit);
    if (!client) return ReportError(client.error());
    ExitCode result = kExitDone;
    std::size_t open = 0;
    for (std::size_t i = 0; i < options.names.size(); ++i) {
        const ChildId id = kFirstDeviceId + static_cast<ChildId>(i);
        const auto opened = OpenDevice(**client, options.unit, options.names[i], id);
        PrintOpened(options.names[i], id, opened, options.json);
        if (opened) {
            ++open;
            continue;
        }
        result = ReportError(opened.error());
        if (opened.error().kind != ErrorKind::kRefused) return result;
    }
    if (open == 0) return result;
    if (!options.duration) std::fprintf(stderr, "vexa-host: held open until Ctrl-C\n");
    const auto held = Hold(**client, options.duration);
    if (!held) return ReportError(held.error());
    return result;
}

}  // namespace

Verb OpenVerb() {
    const auto options = std::make_shared<OpenOptions>();
    return {
        .name = "open",
        .summary = "Open devices, report each result, and hold them open until Ctrl-C",
        .options = WithUnitOptions(
            options->unit,
            {{"NAME", " ", "device names", WordList{&options->names, 100}, true},
             {"--for", "TIME", "how long to hold them (until Ctrl-C)", &options->duration},
             {"--json", "", "a JSON object for each device", &options->json}}),
        .notes =
            "A name stands for a type of device: the unit opens the first one of that type. It has "
            "no\n"
            "way to list its devices; for a virtual unit, \"vexa-unit ctl state\" does. The "
            "devices\n"
            "are open as long as this command runs; at its end it closes the controller.\n"
            "Nine can be open beside the controller.\n"
            "Example: vexa-host open Accelerometer Microphone --for 10s\n"
            "Exit code 1 when one was refused; the others: vexa-host --help.",
        .run = [options] { return RunOpen(*options); }};
}

}  // namespace vexahost::tool
