#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "testkit/Descriptor.h"
#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Parse.h"
#include "tool/Verbs.h"
#include "tool/stream/Formats.h"
#ifdef VEXA_PAGE
#include "page/Server.h"
#endif

namespace vexahost::tool {

namespace {

struct ServeOptions {
    UnitAddress unit;
    FormatOptions formats;
    std::vector<std::string> devices;
    std::string listen = "127.0.0.1:8138";
    std::vector<std::string> hosts;
    std::string record;
    bool readOnly = false;
    bool allowControl = false;
    bool open = false;
};

#ifdef VEXA_PAGE

Error Wrong(const std::string& message) { return {ErrorKind::kInvalidArgument, message}; }

// "ADDRESS:PORT", "[ADDRESS]:PORT" or "PORT".
Expected<Done> ParseListen(const std::string& text, page::ServerOptions& server) {
    const std::size_t colon = text.rfind(':');
    const auto port =
        ParseNumber<std::uint16_t>(colon == std::string::npos ? text : text.substr(colon + 1));
    if (!port) return Wrong("--listen " + text + ": expected ADDRESS:PORT");
    server.port = *port;
    if (colon == std::string::npos) return Done{};
    server.address = text.substr(0, colon);
    if (server.address.starts_with('[') && server.address.ends_with(']')) {
        server.address = server.address.substr(1, server.address.size() - 2);
    }
    if (server.address.empty()) return Wrong("--listen " + text + ": the address is missing");
    return Done{};
}

std::string ControlSocket(const UnitAddress& unit) {
    if (!unit.serial.empty() || !unit.tcp.empty() || !unit.usb.empty()) return "";
    const std::filesystem::path given = unit.directory;
    const bool isSocket = given.filename() == "host.sock";
    return (isSocket ? given.parent_path() : given) / "control.sock";
}

void WarnOfTheNetwork(const page::ServerOptions& server) {
    if (page::IsLoopback(server.address)) return;
    std::fprintf(stderr,
                 "vexa-host: the page is served beyond this machine, without encryption: who can "
                 "read the network's traffic\n           can see what you see%s\n",
                 server.mayControl ? ", and can take the token and steer the unit" : "");
}

// Everybody on the machine can read command lines, and the address holds the token: the browser is
// given a file that leads there, which only this user can read.
bool OpenBrowser(const std::string& url) {
    const char* const folder = std::getenv("XDG_RUNTIME_DIR");
    std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/vexa-page-XXXXXX.html";
    const vexa::testkit::Descriptor file(::mkostemps(path.data(), 5, O_CLOEXEC));
    if (!file) return false;
    const std::string text = "<meta http-equiv=\"refresh\" content=\"0;url=" + url + "\">\n";
    if (::write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return false;
    }
    return std::system(("xdg-open '" + path + "' >/dev/null 2>&1").c_str()) == 0;
}

ExitCode RunServe(const ServeOptions& options) {
    page::ServerOptions server;
    if (const auto right = ParseListen(options.listen, server); !right) {
        return ReportError(right.error());
    }
    const auto formats = LoadFormats(options.formats, options.devices);
    if (!formats) return ReportError(formats.error());
    server.unit = {options.unit.Factory(), *formats, options.devices};
    server.unitText = options.unit.Text();
    server.version = VEXA_VERSION;
    server.controlSocket = ControlSocket(options.unit);
    server.hosts = options.hosts;
    server.recording = options.record;
    server.mayControl =
        !options.readOnly && (page::IsLoopback(server.address) || options.allowControl);
    server.warn = [](const std::string& what) {
        std::fprintf(stderr, "vexa-host: %s\n", what.c_str());
    };
    WarnOfTheNetwork(server);
    CatchInterrupts();
    const auto announce = [&](const std::string& url) {
        std::printf("%s\n", url.c_str());
        std::fflush(stdout);
        if (!options.open) return;
        if (!OpenBrowser(url)) {
            std::fprintf(stderr, "vexa-host: no browser could be started (xdg-open)\n");
        }
    };
    const auto served = page::Serve(server, announce, IsInterrupted);
    return served ? kExitDone : ReportError(served.error());
}

#else

ExitCode RunServe(const ServeOptions&) {
    std::fprintf(stderr,
                 "vexa-host: the live page is not in this build, which was made without %s\n",
                 VEXA_PAGE_MISSING);
    return kExitUsage;
}

#endif

}  // namespace

Verb ServeVerb() {
    const auto options = std::make_shared<ServeOptions>();
    std::vector<Option> own = {
        {"NAME", " ", "sensors to open at once; others are opened on the page",
         WordList{&options->devices, 10}},
        {"--listen", "ADDRESS:PORT", "where to serve the page (127.0.0.1:8138; port 0: any)",
         &options->listen},
        {"--host", "NAME", "another name under which browsers reach the page", &options->hosts},
        {"--record", "FILE", "record the session as pcapng; the page can save it",
         &options->record},
        {"--read-only", "", "the page may look, and change nothing", &options->readOnly},
        {.name = "--allow-control",
         .placeholder = "",
         .help = "the page may control the unit also from other machines",
         .target = &options->allowControl,
         .excludes = {"--read-only"}},
        {"--open", "", "open the page in the browser", &options->open},
    };
    own = WithFormatOptions(options->formats, std::move(own));
    return {.name = "serve",
            .summary = "Show the unit live in a browser: charts, packets, state, controls",
            .options = WithUnitOptions(options->unit, std::move(own)),
            .notes =
                "Prints the page's address, which holds a token: who has it may use the page. "
                "Serves until Ctrl-C, and connects again whenever the unit goes.\n"
                "Beyond this machine the page may only look, unless --allow-control is given.\n"
                "Example: vexa-host serve Accelerometer Microphone --open",
            .run = [options] { return RunServe(*options); }};
}

}  // namespace vexahost::tool
