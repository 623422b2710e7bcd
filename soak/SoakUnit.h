// A virtual unit under test: its process, its control socket and what it uses.
#pragma once

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "run/ControlClient.h"
#include "soak/Support.h"
#include "testkit/ChildProcess.h"
#include "vexahost/Client.h"

namespace vexa::soak {

using Json = nlohmann::ordered_json;
using Milliseconds = std::chrono::milliseconds;

class SoakUnit {
  public:
    // Starts `program` ("vexa-unit") in a folder of its own. Throws std::runtime_error when it
    // cannot be started.
    SoakUnit(const std::string& program, const Json& scenario);
    // Kills it if it is still running.
    ~SoakUnit();
    SoakUnit(const SoakUnit&) = delete;
    SoakUnit& operator=(const SoakUnit&) = delete;

    // Waits for the first line of the service: from then on it ends in order when told to.
    [[nodiscard]] bool AwaitStart(Milliseconds timeout);

    // Sends a control request and returns the answer. Throws std::runtime_error when the unit
    // refuses it or does not answer.
    Json Ask(const Json& request);

    // Plugs the cable in.
    [[nodiscard]] vexahost::TransportFactory Cable() const;

    [[nodiscard]] bool IsAlive() const { return IsRunning(service); }
    [[nodiscard]] ProcessFigures Figures() const { return FiguresOf(service); }

    // Tells it to end, as a service manager does.
    void Terminate() { process->Signal(SIGTERM); }

    // Waits for its end, by itself or after Terminate. Returns what went wrong; empty when it ended
    // in time and in order: with status 0, all libraries released, nothing left behind.
    [[nodiscard]] std::string AwaitEnd(Milliseconds timeout);

    // Whether the unit's call log contains `text`.
    [[nodiscard]] bool CallLogHas(const std::string& text) const;

    // The last lines of output of the unit and the service, for a report.
    [[nodiscard]] std::vector<std::string> LastLines();

  private:
    [[nodiscard]] std::string WhatIsLeft() const;
    [[nodiscard]] std::string WhatIsMissing();

    std::filesystem::path folder;
    std::optional<testkit::ChildProcess> process;
    pid_t service = -1;
    std::optional<vexa::unit::ControlClient> control;  // connected at the first request
};

}  // namespace vexa::soak
