// A virtual unit that is put to the test: its process, its controls and what it holds.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ProcessFigures.h"
#include "demo/UnitProcess.h"
#include "run/ControlClient.h"
#include "vexahost/Client.h"

namespace vexa::soak {

using Json = nlohmann::ordered_json;
using Milliseconds = std::chrono::milliseconds;

class SoakUnit {
  public:
    // Starts `program` ("vexa-unit") in a folder of its own. Throws std::runtime_error when it
    // cannot be started.
    SoakUnit(const std::string& program, const Json& scenario);
    // Kills it if it still runs.
    ~SoakUnit();
    SoakUnit(const SoakUnit&) = delete;
    SoakUnit& operator=(const SoakUnit&) = delete;

    // Waits for the service's first line: from then on it ends in order when told to.
    [[nodiscard]] bool AwaitStart(Milliseconds timeout);

    // Sends a request to the unit's controls and returns the answer. Throws std::runtime_error when
    // the unit refuses it or does not answer.
    Json Ask(const Json& request);

    // Plugs the cable in.
    [[nodiscard]] vexahost::TransportFactory Cable() const;

    [[nodiscard]] bool IsAlive() const { return IsRunning(service); }
    [[nodiscard]] ProcessFigures Figures() const { return FiguresOf(service); }

    // Tells it to end, as a service manager does.
    void Terminate() const { process->Terminate(); }

    // Waits for its end by itself or after Terminate. What is wrong with it, empty when it ended in
    // order: in time, with status 0, all libraries given back, nothing left behind.
    [[nodiscard]] std::string AwaitEnd(Milliseconds timeout);

    // Whether a line of the unit's account of its calls has `text`.
    [[nodiscard]] bool JournalHolds(const std::string& text) const;

    // The last lines that the unit and the service printed, for a report.
    [[nodiscard]] std::vector<std::string> LastLines();

  private:
    [[nodiscard]] std::string WhatIsLeft() const;
    [[nodiscard]] std::string WhatIsMissing();
    void CollectLines();

    std::filesystem::path folder;
    std::unique_ptr<UnitProcess> process;
    pid_t service = -1;
    std::optional<vexa::unit::ControlClient> control;  // connected at the first request
    std::vector<std::string> lines;
};

}  // namespace vexa::soak
