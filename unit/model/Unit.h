// The unit around the service: one in each process, shared by the stand-in libraries, the node and
// the control socket.
#pragma once

#include <atomic>
#include <memory>

#include "foundation/Mutex.h"
#include "model/Cable.h"
#include "model/CallLog.h"
#include "model/ControlServer.h"
#include "model/CriLibrary.h"
#include "model/Faults.h"
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
    // The process's unit, made on first use as the environment describes it (UnitSocket.h). When
    // that fails, the reason is printed on standard error and the process ends with status 2. Never
    // destroyed: threads may use it until the process ends. Any thread.
    [[nodiscard]] static Unit& Instance();

    [[nodiscard]] const CallLog& Calls() const { return calls; }
    [[nodiscard]] FaultTable& Faults() { return faults; }
    [[nodiscard]] VexaLibrary& Vexa() { return vexa; }
    [[nodiscard]] CriLibrary& Cri() { return cri; }

    [[nodiscard]] bool HasNode() const { return nodePresent; }
    // Hosts are served from the first call on: of all the processes that the program may start,
    // only the one that uses the node may accept them.
    [[nodiscard]] Cable& HostCable();

    // These also work before hosts are served.
    void ChangeCable(const CableSettings& settings);
    [[nodiscard]] CableState StateOfCable() const;

  private:
    explicit Unit(const Scenario& scenario);

    const CallLog calls;
    FaultTable faults;
    VexaLibrary vexa;
    CriLibrary cri;
    const bool nodePresent;
    mutable Mutex cableMutex;
    CableSettings cableSettings VEXA_GUARDED_BY(cableMutex);
    std::unique_ptr<Cable> cable VEXA_GUARDED_BY(cableMutex);  // set once
    std::atomic<Cable*> servedCable = nullptr;                 // the same, for use without the lock
    std::unique_ptr<ControlServer> control;  // last, as its thread uses all the others; may be none
};

}  // namespace vexa::unit
