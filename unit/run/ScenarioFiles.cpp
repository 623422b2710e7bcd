#include "run/ScenarioFiles.h"

#include <algorithm>
#include <filesystem>
#include <variant>

#include "model/ScenarioFile.h"
#include "run/StandIns.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

namespace fs = std::filesystem;

constexpr char kEnding[] = ".json";
constexpr char kSchemaEnding[] = ".schema";  // before the other one

fs::path ScenarioFolder() {
    return fs::path(ProgramFolder()).parent_path() / "share" / "vexa-unit" / "scenarios";
}

bool Exists(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

}  // namespace

std::vector<ShippedScenario> ShippedScenarios() {
    std::error_code error;
    fs::directory_iterator folder(ScenarioFolder(), error);
    if (error) throw UserError("cannot read " + ScenarioFolder().string() + ": " + error.message());
    std::vector<ShippedScenario> scenarios;
    for (const auto& entry : folder) {
        const fs::path name = entry.path().stem();
        if (entry.path().extension() != kEnding || name.extension() == kSchemaEnding) continue;
        const auto loaded = LoadScenario(entry.path());
        if (const auto* const wrong = std::get_if<ScenarioError>(&loaded)) {
            throw UserError("scenario " + wrong->text);
        }
        scenarios.push_back({name, std::get<Scenario>(loaded).description});
    }
    std::ranges::sort(scenarios, {}, &ShippedScenario::name);
    return scenarios;
}

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

}  // namespace vexa::unit
