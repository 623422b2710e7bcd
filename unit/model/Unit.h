// The unit around the service: one in each process, shared by the stand-in libraries, the node and
// the control socket.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "model/Cable.h"
#include "model/ControlServer.h"
#include "model/CriLibrary.h"
#include "model/Export.h"
#include "model/FaultTable.h"
#include "model/Journal.h"
#include "model/Scenario.h"
#include "model/VexaLibrary.h"

namespace vexa::unit {

struct CableState {
    CableSettings settings;
    bool hostConnected = false;
    CableCounts counts;
};

class VEXA_UNIT_EXPORT Unit {
  public:
    // The process's unit, made on first use as the environment describes it (UnitEnvironment.h).
    // What makes that impossible is printed on standard error and ends the process with status 2.
    // Never destroyed: threads may use it until the process is gone.
    [[nodiscard]] static Unit& Instance();

    [[nodiscard]] const Journal& CallJournal() const { return journal; }
    [[nodiscard]] FaultTable& Faults() { return faults; }
    [[nodiscard]] VexaLibrary& Vexa() { return vexa; }
    [[nodiscard]] CriLibrary& Cri() { return cri; }

    [[nodiscard]] bool HasNode() const { return nodePresent; }
    // Any thread. Hosts are served from the first call on: of the processes that a program may
    // start, only the one that uses the node may take them.
    [[nodiscard]] Cable& HostCable();

    // Of the cable, also before it is served.
    void ChangeCable(const CableSettings& settings);
    [[nodiscard]] CableState StateOfCable() const;

  private:
    explicit Unit(const Scenario& scenario);

    const Journal journal;
    FaultTable faults;
    VexaLibrary vexa;
    CriLibrary cri;
    const bool nodePresent;
    mutable std::mutex cableMutex;  // guards cableSettings and the making of the cable
    CableSettings cableSettings;
    std::atomic<Cable*> servedCable = nullptr;  // that of `cable`, once there is one
    std::unique_ptr<Cable> cable;               // set once, under cableMutex
    std::unique_ptr<ControlServer> control;     // last: its thread uses all the others; may be none
};

}  // namespace vexa::unit
