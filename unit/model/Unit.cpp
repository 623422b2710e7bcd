#include "model/Unit.h"

#include <fcntl.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <variant>

#include "model/ControlRequests.h"
#include "model/Events.h"
#include "model/Settings.h"
#include "model/Timeline.h"
#include "model/UnitSocket.h"

namespace vexa::unit {

using testkit::Descriptor;

namespace {

std::string Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

Scenario ScenarioOfEnvironment() {
    const std::string path = Variable(kScenarioVariable);
    if (path.empty()) return {};
    auto loaded = LoadScenario(path, path);
    if (const auto* error = std::get_if<ScenarioError>(&loaded)) {
        throw std::runtime_error("scenario " + error->text);
    }
    return std::get<Scenario>(std::move(loaded));
}

// The listening socket that vexa-unit made, or a new one for a program started without vexa-unit.
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

// Ends the process when `make` fails: otherwise the service would run as if on a broken unit. What
// the process has too little of at the moment fails the call alone; the next one tries again.
template <typename Make>
auto OrEndProcess(Make make) {
    try {
        return make();
    } catch (const std::system_error&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-unit: %s\n", error.what());
        std::_Exit(2);
    }
}

}  // namespace

Unit::Unit(const Scenario& scenario)
    : calls(Variable(kCallLogVariable)),
      seed(scenario.seed),
      faults(scenario.faults, scenario.seed),
      vexa(scenario, faults),
      cri(scenario.applications),
      nodePresent(scenario.node.present),
      cableSettings(scenario.cable) {
    if (Variable(kFolderVariable).empty()) return;  // started without a unit
    control = std::make_unique<ControlServer>(
        SocketOfEnvironment(kControlSocketVariable, ControlSocketPath),
        [this](const std::string& line) { return AnswerControlLine(*this, line); });
    publisher = control.get();
    if (scenario.timeline.empty()) return;
    Timeline timeline(scenario.timeline, [this](const std::string& request) {
        calls.Write("timeline " + request);
        (void)AnswerControlLine(*this, request);  // checked when the scenario was read
    });
    // Like the unit, it is there until the process ends.
    StartQuietThread([timeline = std::move(timeline)]() mutable { timeline.Run(); }).detach();
}

Unit& Unit::Instance() {
    static Unit& instance = OrEndProcess(
        []() -> std::reference_wrapper<Unit> { return *new Unit(ScenarioOfEnvironment()); });
    return instance;
}

Cable& Unit::HostCable() {
    if (Cable* const served = servedCable) return *served;
    const MutexLock lock(cableMutex);
    if (cable == nullptr) {
        cable = OrEndProcess([this, settings = cableSettings] {
            return std::make_unique<Cable>(SocketOfEnvironment(kHostSocketVariable, HostSocketPath),
                                           settings, seed, [this](bool in) {
                                               calls.Write(in ? "cable in" : "cable out");
                                               ReportCable(*this, in);
                                           });
        });
        servedCable = cable.get();
    }
    return *cable;
}

void Unit::ChangeCable(const CableSettings& settings) {
    const MutexLock lock(cableMutex);
    cableSettings = settings;
    if (cable != nullptr) cable->Change(settings);
}

CableState Unit::StateOfCable() const {
    const MutexLock lock(cableMutex);
    if (cable == nullptr) return {cableSettings, false, cableSettings.in, {}};
    return {cableSettings, cable->IsIn(), cable->MayBeIn(), cable->Counts()};
}

UnitSettings Unit::Settings() const { return {vexa.Devices(), vexa.Daq(), cri.Applications()}; }

void Unit::Publish(const Json& event) {
    if (ControlServer* const server = publisher) server->Publish(ToLine(event));
}

bool Unit::HasListeners() const {
    const ControlServer* const server = publisher;
    return server != nullptr && server->HasListeners();
}

}  // namespace vexa::unit
