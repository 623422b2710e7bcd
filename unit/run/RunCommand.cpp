#include "run/RunCommand.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <variant>

#include "model/Settings.h"
#include "model/UnitSocket.h"
#include "run/UnitFolder.h"
#include "run/UserError.h"
#include "testkit/ChildProcess.h"

namespace vexa::unit {

namespace fs = std::filesystem;

namespace {

constexpr char kService[] = "VEXADevMgr";
constexpr char kNodeLibrary[] = "libzt-usb.so";
constexpr char kNode[] = "/dev/zt-usb";
constexpr char kLineBuffering[] = "line-buffered.so";

// `first` in front of the current value of the variable.
std::string Before(const std::string& first, const char* variable, char separator) {
    const char* const rest = std::getenv(variable);
    return rest == nullptr || *rest == '\0' ? first : first + separator + rest;
}

}  // namespace

fs::path ProgramFolder() {
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path();
}

fs::path StandInFolder() {
    const auto above = ProgramFolder().parent_path();
    const std::array candidates = {above / "lib", above / VEXA_STAND_IN_FOLDER};
    for (const auto& candidate : candidates) {
        std::error_code error;
        if (fs::exists(candidate / kNodeLibrary, error)) return candidate;
    }
    throw UserError("cannot find " + std::string(kNodeLibrary) + " in " + candidates[0].string() +
                    " or " + candidates[1].string());
}

namespace {

constexpr char kEnding[] = ".json";
constexpr char kSchemaEnding[] = ".schema";  // before that

bool Exists(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

// What is preloaded into the program: the stand-in of the node, or for a real node what makes the
// service's lines appear at once, if it is there. The service itself never flushes them.
std::string Preloaded(const RunOptions& options, UnitFolder& unit, const std::string& standIns) {
    if (options.link != "usb") return standIns + "/" + kNodeLibrary;
    const auto above = ProgramFolder().parent_path();
    for (const auto& folder : {above / "lib", above / "lib" / "vexadevmgr"}) {
        if (!Exists(folder / kLineBuffering)) continue;
        return unit.Listable(folder, "line-buffering") + "/" + kLineBuffering;
    }
    return "";
}

fs::path ScenarioFolder() {
    return ProgramFolder().parent_path() / "share" / "vexa-unit" / "scenarios";
}

// `name`: of the file, for messages.
Scenario Load(const std::string& path, const std::string& name) {
    auto loaded = LoadScenario(path, name);
    if (const auto* error = std::get_if<ScenarioError>(&loaded)) {
        throw UserError("scenario " + error->text);
    }
    return std::get<Scenario>(std::move(loaded));
}

// The scenario file that `text` stands for: a shipped one of that name, or else a path.
std::string FindScenario(const std::string& text) {
    if (text.empty()) return text;
    const bool maybeName = text.find('/') == std::string::npos;
    const fs::path shipped = ScenarioFolder() / (text + kEnding);
    if (maybeName && Exists(shipped)) return shipped;
    if (maybeName && !Exists(text)) {
        throw UserError("scenario " + text + ": there is no file of that name, and no scenario; " +
                        "vexa-unit scenarios lists them");
    }
    return fs::absolute(text);
}

// A scenario that is no file but a pipe can be read only once, and the program reads it, too: a
// copy of it then, for the program to inherit, and else nothing.
testkit::Descriptor CopyOfPipe(const std::string& path) {
    std::error_code error;
    const auto kind = fs::status(path, error).type();
    if (path.empty() || (kind != fs::file_type::fifo && kind != fs::file_type::socket &&
                         kind != fs::file_type::character)) {
        return {};
    }
    testkit::Descriptor copy(::memfd_create("scenario", MFD_CLOEXEC));
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    const std::string content = text.str();
    if (::write(copy.Get(), content.data(), content.size()) !=
        static_cast<ssize_t>(content.size())) {
        throw UserError("scenario " + path + ": cannot keep a copy: " + std::strerror(errno));
    }
    return copy;
}

// Opens the call log, in words if that fails; empty without a path. Until it is closed a FIFO has
// its reader, so that the program does not wait for one.
testkit::Descriptor OpenCallLog(const std::string& path) {
    if (path.empty()) return {};
    testkit::Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!file) throw UserError("journal " + path + ": " + std::strerror(errno));
    return file;
}

// A unit's own libraries: the names by which the program asks for them, and the files; empty: the
// stand-in.
struct OwnLibrary {
    const char* name;
    const char* option;
    std::string file;
};

std::array<OwnLibrary, 2> OwnLibraries(const RunOptions& options) {
    std::array<OwnLibrary, 2> libraries = {
        {{"libVEXA.so", "--vexa", options.vexa}, {"libvexcri.so", "--vexcri", options.vexcri}}};
    for (auto& [name, option, file] : libraries) {
        if (file.empty()) continue;
        std::error_code error;
        const fs::path found = fs::canonical(file, error);
        if (error) throw UserError(std::string(option) + " " + file + ": " + error.message());
        file = found;
    }
    return libraries;
}

// Where the dynamic linker looks: in a folder with links to a unit's own libraries, in that of the
// stand-ins, and beside the unit's own for what they may need.
std::string LibraryPath(UnitFolder& folder, const std::string& standIns,
                        const std::array<OwnLibrary, 2>& libraries) {
    std::string links;
    std::string beside;
    for (const auto& library : libraries) {
        if (library.file.empty()) continue;
        links = folder.Link(library.name, library.file) + ":";
        beside += ":" + folder.Listable(fs::path(library.file).parent_path(),
                                        std::string("beside-") + library.name);
    }
    return Before(links + standIns + beside, "LD_LIBRARY_PATH", ':');
}

// Says which library the program gets if that may not be what the user expects.
void TellLibrary(const OwnLibrary& library) {
    const auto& [name, option, file] = library;
    if (!file.empty()) {
        std::fprintf(stderr, "vexa-unit: %s is %s\n", name, file.c_str());
        return;
    }
    const char* const list = std::getenv("LD_LIBRARY_PATH");
    std::istringstream folders(list == nullptr ? "" : list);
    for (std::string folder; std::getline(folders, folder, ':');) {
        const fs::path found = fs::path(folder) / name;
        if (!Exists(found)) continue;
        std::fprintf(stderr,
                     "vexa-unit: %s is the stand-in, not %s of LD_LIBRARY_PATH; %s FILE puts "
                     "that in\n",
                     name, found.c_str(), option);
        return;
    }
}

// Beside this program, as built; in the folder for services, as installed, which need not be in
// PATH; else anywhere in PATH.
std::string FindService() {
    const fs::path here = ProgramFolder();
    for (const auto& folder : {here, here.parent_path() / VEXA_SERVICE_FOLDER}) {
        std::error_code error;
        if (fs::exists(folder / kService, error)) return folder / kService;
    }
    return kService;
}

// The signals that end the program, and the one that tells of its end. They are blocked, and
// received by PassSignalsOn.
sigset_t PassedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
    return signals;
}

// Passes signals on to the program until it has ended; returns its exit status.
int PassSignalsOn(testkit::ChildProcess& program, bool ownGroup) {
    const sigset_t passed = PassedSignals();
    for (;;) {
        siginfo_t signal{};
        if (sigwaitinfo(&passed, &signal) < 0) continue;
        // A key press reaches every process of the terminal's foreground group by itself.
        const bool hasIt = signal.si_code == SI_KERNEL && !ownGroup;
        if (signal.si_signo != SIGCHLD && !hasIt) program.Signal(signal.si_signo);
        if (const auto status = program.Status()) return *status;
    }
}

// Prints the scenario, the devices and the control socket.
void Describe(const std::string& name, const Scenario& scenario, const UnitFolder& folder) {
    std::string devices;
    for (const auto& device : scenario.devices) {
        devices += (devices.empty() ? "" : ", ") + device.name + " (type " +
                   std::to_string(device.type) + (device.attached ? ")" : ", detached)");
    }
    std::fprintf(stderr, "vexa-unit: scenario %s%s%s\nvexa-unit: devices %s\n",
                 name.empty() ? "default" : name.c_str(), scenario.description.empty() ? "" : ": ",
                 scenario.description.c_str(), devices.empty() ? "none" : devices.c_str());
    std::fprintf(stderr, "vexa-unit: control socket %s\n",
                 ControlSocketPath(folder.Path()).c_str());
}

testkit::ChildProcess Start(const testkit::ProcessCall& call) {
    try {
        return testkit::ChildProcess(call);
    } catch (const std::system_error& error) {
        throw UserError("cannot run " + call.command.front() + ": " + error.code().message());
    }
}

}  // namespace

std::vector<std::pair<std::string, std::string>> ShippedScenarios() {
    std::error_code error;
    fs::directory_iterator folder(ScenarioFolder(), error);
    if (error) throw UserError("cannot read " + ScenarioFolder().string() + ": " + error.message());
    std::vector<std::pair<std::string, std::string>> scenarios;
    for (const auto& entry : folder) {
        const fs::path name = entry.path().stem();
        if (entry.path().extension() != kEnding || name.extension() == kSchemaEnding) continue;
        scenarios.emplace_back(name, Load(entry.path(), entry.path()).description);
    }
    std::ranges::sort(scenarios);
    return scenarios;
}

int RunOnUnit(const RunOptions& options) {
    const std::string scenario = FindScenario(options.scenario);
    const auto copy = CopyOfPipe(scenario);
    const std::string source = copy ? "/proc/self/fd/" + std::to_string(copy.Get()) : scenario;
    const Scenario loaded = source.empty() ? Scenario() : Load(source, scenario);
    const std::string installed = StandInFolder();
    const auto libraries = OwnLibraries(options);
    const bool isUsb = options.link == "usb";
    if (isUsb && !Exists(kNode)) {
        throw UserError("there is no " + std::string(kNode) +
                        ": vexa-usb serves it (systemctl status vexa-usb)");
    }

    const sigset_t passed = PassedSignals();
    sigset_t formerMask;
    sigprocmask(SIG_BLOCK, &passed, &formerMask);
    UnitFolder folder(options.folder);
    if (isUsb) folder.ReleaseHostSocket();
    const std::string standIns = folder.Listable(installed, "stand-ins");
    // It may be in that folder. A signal ends the wait for the reader of a FIFO, and the watcher
    // removes what is there.
    sigprocmask(SIG_SETMASK, &formerMask, nullptr);
    const auto callLog = OpenCallLog(options.callLog);
    sigprocmask(SIG_BLOCK, &passed, nullptr);
    for (const auto& library : libraries) TellLibrary(library);

    if (options.describes) Describe(options.scenario, loaded, folder);

    testkit::ProcessCall call;
    call.command = options.program.empty() ? std::vector{FindService()} : options.program;
    call.output = testkit::ProcessCall::Output::kShared;
    call.keepIgnored = true;
    // Whoever signals the whole process group would otherwise signal the program twice, and the
    // service ends at once on the second signal. On a terminal the program has to stay in the
    // foreground group.
    call.ownGroup = ::isatty(STDIN_FILENO) == 0;
    call.mask = &formerMask;
    call.inherited = {folder.ControlSocket().Get()};
    if (!isUsb) call.inherited.push_back(folder.HostSocket().Get());
    if (copy) call.inherited.push_back(copy.Get());
    call.environment = {
        {"LD_LIBRARY_PATH", LibraryPath(folder, standIns, libraries)},
        {"LD_PRELOAD", Before(Preloaded(options, folder, standIns), "LD_PRELOAD", ':')},
        {kScenarioVariable, source},
        {kCallLogVariable, options.callLog.empty() ? "" : fs::absolute(options.callLog).string()},
        {kFolderVariable, folder.Path()},
        {kHostSocketVariable, std::to_string(folder.HostSocket().Get())},
        {kControlSocketVariable, std::to_string(folder.ControlSocket().Get())}};

    testkit::ChildProcess program = Start(call);
    folder.ReleaseSockets();
    std::fprintf(stderr, "vexa-unit: %s %s\n", isUsb ? "serves hosts of" : "host socket",
                 isUsb ? kNode : HostSocketPath(folder.Path()).c_str());
    return PassSignalsOn(program, call.ownGroup);
}

}  // namespace vexa::unit
