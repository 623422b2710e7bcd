#include "soak/SoakUnit.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "vexahost/SocketTransport.h"

namespace vexa::soak {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLastLines = 8;
constexpr Milliseconds kEndPatience{2000};
constexpr Milliseconds kRemoveTimeout{1000};

constexpr char kFirstLine[] = "is starting up.";
constexpr char kShutDownLine[] = "VEXADevMgr is shutting down.";

fs::path NewFolder() {
    std::string path = (fs::temp_directory_path() / "vexa-soak-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make a folder " + path);
    return path;
}

// What the call log says of a run.
struct CallLogSummary {
    bool libraryWorked = false;
    std::string last;

    explicit CallLogSummary(const fs::path& file) {
        std::ifstream stream(file);
        for (std::string line; std::getline(stream, line); last = line) {
            libraryWorked = libraryWorked || (line.starts_with("VEXA_Init() = ") &&
                                              !line.starts_with("VEXA_Init() = 0"));
        }
    }
};

}  // namespace

SoakUnit::SoakUnit(const std::string& program, const Json& scenario) : folder(NewFolder()) {
    const std::string file = folder / "scenario.json";
    std::ofstream(file) << scenario.dump(2) << '\n';
    process.emplace(testkit::ProcessCall{.command = {program, "run", "--dir", folder, "--scenario",
                                                     file, "--journal", folder / "journal"},
                                         .ownGroup = true,
                                         .withoutInput = true});
}

SoakUnit::~SoakUnit() {
    process->Stop(kEndPatience);
    process.reset();
    // After a kill, the unit's watcher may be removing files at the same time.
    (void)testkit::WaitUntil(kRemoveTimeout, [&] {
        std::error_code error;
        fs::remove_all(folder, error);
        return !error;
    });
}

bool SoakUnit::AwaitStart(Milliseconds timeout) {
    if (process->Log().WaitFor(kFirstLine, timeout) == std::string::npos) return false;
    service = LastChildOf(process->Id());
    return true;
}

Json SoakUnit::Ask(const Json& request) {
    if (!control) control.emplace(folder);
    Json answer = Json::parse(control->Ask(request.dump()));
    if (!answer.at("ok").get<bool>()) {
        throw std::runtime_error("the unit refused " + request.dump() + ": " +
                                 answer.at("error").get<std::string>());
    }
    return answer;
}

vexahost::TransportFactory SoakUnit::Cable() const {
    return [path = folder.string()](const vexahost::ConnectLimits& limits) {
        return vexahost::SocketTransport::ConnectUnit(path, limits);
    };
}

std::string SoakUnit::AwaitEnd(Milliseconds timeout) {
    const auto status = process->Wait(timeout);
    if (!status) return "has not ended within " + std::to_string(timeout.count()) + " ms";
    (void)process->Log().WaitForEnd(timeout);
    if (*status != 0) return "ended with status " + std::to_string(*status);
    const std::string missing = WhatIsMissing();
    return missing.empty() ? WhatIsLeft() : missing;
}

std::string SoakUnit::WhatIsMissing() {
    if (process->Log().Text().find(kShutDownLine) == std::string::npos) {
        return "ended without its shut-down line";
    }
    // The library is released last; without it, the sessions are.
    const CallLogSummary log(folder / "journal");
    const char* const last = log.libraryWorked ? "VEXA_Uninit" : "criTerminate(\"FGEN\"";
    if (log.last.starts_with(last)) return "";
    return "ended with the libraries in use; their last call was " + log.last;
}

std::string SoakUnit::WhatIsLeft() const {
    if (service > 0 && IsRunning(service)) return "the service outlived the unit";
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name != "scenario.json" && name != "journal") return name + " was left behind";
    }
    return "";
}

bool SoakUnit::CallLogHas(const std::string& text) const {
    std::ifstream stream(folder / "journal");
    for (std::string line; std::getline(stream, line);) {
        if (line.find(text) != line.npos) return true;
    }
    return false;
}

std::vector<std::string> SoakUnit::LastLines() {
    auto lines = process->Log().Lines();
    if (lines.size() > kLastLines) lines.erase(lines.begin(), lines.end() - kLastLines);
    return lines;
}

}  // namespace vexa::soak
