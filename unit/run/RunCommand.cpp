#include "run/RunCommand.h"

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <variant>

#include "model/Journal.h"
#include "model/ScenarioFile.h"
#include "model/UnitEnvironment.h"
#include "run/Program.h"
#include "run/ScenarioFiles.h"
#include "run/StandIns.h"
#include "run/UnitFolder.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

constexpr char kService[] = "VEXADevMgr";

std::string Absolute(const std::string& path) {
    return path.empty() ? "" : std::filesystem::absolute(path).string();
}

void CheckScenario(const std::string& path) {
    if (path.empty()) return;
    const auto loaded = LoadScenario(path);
    if (const auto* error = std::get_if<ScenarioError>(&loaded)) {
        throw UserError("scenario " + error->text);
    }
}

void CheckJournal(const std::string& path) {
    try {
        const Journal journal(path);
    } catch (const std::system_error& error) {
        throw UserError("journal " + std::string(error.what()));
    }
}

// Beside this program, as built; in the folder for services, as installed, which need not be in
// PATH; else anywhere in PATH.
std::string FindService() {
    const std::filesystem::path here = ProgramFolder();
    for (const auto& folder : {here, here.parent_path() / VEXA_SERVICE_FOLDER}) {
        std::error_code error;
        if (std::filesystem::exists(folder / kService, error))
            return FindProgram(folder / kService);
    }
    return FindProgram(kService);
}

}  // namespace

int RunOnUnit(const RunOptions& options) {
    const std::string scenario = FindScenario(options.scenario);
    CheckScenario(scenario);
    const bool isService = options.program.empty();

    ProgramCall call;
    call.path = isService ? FindService() : FindProgram(options.program.front());
    call.arguments = isService ? std::vector<std::string>{kService} : options.program;
    PreferStandIns(StandInFolder(), call.changes);
    call.changes[kScenarioVariable] = scenario;
    call.changes[kJournalVariable] = Absolute(options.journal);

    UnitFolder folder(options.folder);
    CheckJournal(options.journal);  // it may be in that folder
    call.changes[kFolderVariable] = folder.Path();
    call.changes[kHostSocketVariable] = std::to_string(folder.HostSocket());
    call.changes[kControlSocketVariable] = std::to_string(folder.ControlSocket());
    call.inherited = {folder.HostSocket(), folder.ControlSocket()};

    Program program(call);
    folder.ReleaseSockets();
    std::fprintf(stderr, "vexa-unit: host socket %s\n", folder.HostSocketPath().c_str());
    return program.Wait();
}

}  // namespace vexa::unit
