#include "SoakUnit.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "vexahost/SocketTransport.h"

namespace vexa::soak {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLastLines = 8;
constexpr Milliseconds kEndPatience{2000};
constexpr Milliseconds kRemovePause{20};
constexpr int kRemoveTries = 50;

constexpr char kFirstLine[] = "is starting up.";
constexpr char kShutDownLine[] = "VEXADevMgr is shutting down.";

fs::path NewFolder() {
    std::string path = (fs::temp_directory_path() / "vexa-soak-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make a folder " + path);
    return path;
}

// The journal's account of a run.
struct Journal {
    bool libraryWorked = false;
    std::string last;

    explicit Journal(const fs::path& file) {
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
    auto started = UnitProcess::Start(
        {program, "run", "--dir", folder, "--scenario", file, "--journal", folder / "journal"});
    if (!started) throw std::runtime_error(started.Failure().message);
    process = std::move(*started);
}

SoakUnit::~SoakUnit() {
    process->Terminate();
    if (!process->Wait(kEndPatience)) process.reset();
    // What tidies up after a killed unit may still be at it, and get in the way.
    std::error_code error;
    for (int tries = kRemoveTries; tries > 0; --tries) {
        fs::remove_all(folder, error);
        if (!error) return;
        std::this_thread::sleep_for(kRemovePause);
    }
}

bool SoakUnit::AwaitStart(Milliseconds timeout) {
    if (!process->Log().WaitFor(kFirstLine, timeout)) return false;
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
    return [path = folder.string()] { return vexahost::SocketTransport::ConnectUnit(path); };
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
    CollectLines();
    bool saidSo = false;
    for (const auto& line : lines) saidSo = saidSo || line.find(kShutDownLine) != line.npos;
    if (!saidSo) return "ended without its shut-down line";
    // Without the library there is none to give back, and the sessions go last.
    const Journal journal(folder / "journal");
    const char* const last = journal.libraryWorked ? "VEXA_Uninit" : "criTerminate(\"FGEN\"";
    if (journal.last.starts_with(last)) return "";
    return "ended with the libraries in use; their last call was " + journal.last;
}

std::string SoakUnit::WhatIsLeft() const {
    if (service > 0 && IsRunning(service)) return "the service outlived the unit";
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name != "scenario.json" && name != "journal") return name + " was left behind";
    }
    return "";
}

bool SoakUnit::JournalHolds(const std::string& text) const {
    std::ifstream stream(folder / "journal");
    for (std::string line; std::getline(stream, line);) {
        if (line.find(text) != line.npos) return true;
    }
    return false;
}

void SoakUnit::CollectLines() {
    for (auto& line : process->Log().Take()) lines.push_back(std::move(line));
}

std::vector<std::string> SoakUnit::LastLines() {
    CollectLines();
    if (lines.size() > kLastLines) lines.erase(lines.begin(), lines.end() - kLastLines);
    return lines;
}

}  // namespace vexa::soak
