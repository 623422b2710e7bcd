#include "model/Unit.h"

#include <fcntl.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <variant>

#include "model/ControlRequests.h"
#include "model/ScenarioFile.h"
#include "model/UnitEnvironment.h"
#include "model/UnitSocket.h"

namespace vexa::unit {

namespace {

std::string Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

Scenario ScenarioOfEnvironment() {
    const std::string path = Variable(kScenarioVariable);
    if (path.empty()) return {};
    auto loaded = LoadScenario(path);
    if (const auto* error = std::get_if<ScenarioError>(&loaded)) {
        throw std::runtime_error("scenario " + error->text);
    }
    return std::get<Scenario>(std::move(loaded));
}

// The listening socket that vexa-unit made; or one made here, for a program started without it.
Descriptor SocketOfEnvironment(const char* variable, std::string (*pathIn)(const std::string&)) {
    const std::string folder = Variable(kFolderVariable);
    if (folder.empty()) {
        throw std::runtime_error(std::string(kFolderVariable) + " does not name a folder");
    }
    const std::string path = pathIn(folder);
    const std::string text = Variable(variable);
    int inherited = -1;
    std::from_chars(text.data(), text.data() + text.size(), inherited);
    if (inherited < 0 || !ListensOn(inherited, path)) return ListenOn(path);
    ::fcntl(inherited, F_SETFD, FD_CLOEXEC);
    return Descriptor(inherited);
}

// The service would go on as on a broken unit, and its user look for the fault in the wrong place.
template <typename Make>
auto OrEndProcess(Make make) {
    try {
        return make();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-unit: %s\n", error.what());
        std::_Exit(2);
    }
}

}  // namespace

Unit::Unit(const Scenario& scenario)
    : journal(Variable(kJournalVariable)),
      faults(scenario.faults),
      vexa(scenario, faults),
      cri(scenario.applications),
      nodePresent(scenario.nodePresent),
      cableSettings(scenario.cable) {
    if (Variable(kFolderVariable).empty()) return;  // a program that was started without a unit
    control = std::make_unique<ControlServer>(
        SocketOfEnvironment(kControlSocketVariable, ControlSocketPath),
        [this](const std::string& line) { return AnswerControlLine(*this, line); });
}

Unit& Unit::Instance() {
    static Unit& instance = OrEndProcess(
        []() -> std::reference_wrapper<Unit> { return *new Unit(ScenarioOfEnvironment()); });
    return instance;
}

Cable& Unit::HostCable() {
    if (Cable* const served = servedCable) return *served;
    const std::lock_guard lock(cableMutex);
    if (cable == nullptr) {
        cable = OrEndProcess([this] {
            return std::make_unique<Cable>(
                SocketOfEnvironment(kHostSocketVariable, HostSocketPath), cableSettings,
                [this](bool in) { journal.Write(in ? "cable in" : "cable out"); });
        });
        servedCable = cable.get();
    }
    return *cable;
}

void Unit::ChangeCable(const CableSettings& settings) {
    const std::lock_guard lock(cableMutex);
    cableSettings = settings;
    if (cable != nullptr) cable->Change(settings);
}

CableState Unit::StateOfCable() const {
    const std::lock_guard lock(cableMutex);
    if (cable == nullptr) return {cableSettings, false, {}};
    return {cableSettings, cable->IsIn(), cable->Counts()};
}

}  // namespace vexa::unit
