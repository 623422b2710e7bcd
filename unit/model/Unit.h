// The unit around the service: one in each process, shared by the stand-in libraries, the node and
// the control socket.
#pragma once

#include <atomic>
#include <memory>

#include "foundation/Mutex.h"
#include "model/Cable.h"
#include "model/CallLog.h"
#include "model/CheckedJson.h"
#include "model/ControlServer.h"
#include "model/CriLibrary.h"
#include "model/Faults.h"
#include "model/Requests.h"
#include "model/Scenario.h"
#include "model/VexaLibrary.h"

namespace vexa::unit {

struct CableState {
    CableSettings settings;
    bool hostConnected = false;
    bool mayPlugIn = true;
    CableCounts counts;
};

class VEXA_UNIT_EXPORT Unit {
  public:
    // The process's unit, made on first use as the environment describes it (UnitSocket.h). When
    // that cannot be used, the reason is printed on standard error and the process ends with status
    // 2. Throws std::system_error or std::bad_alloc when the process has too few threads,
    // descriptors or too little memory for it now. Never destroyed: threads may use it until the
    // process ends. Any thread.
    [[nodiscard]] static Unit& Instance();

    [[nodiscard]] const CallLog& Calls() const { return calls; }
    [[nodiscard]] FaultTable& Faults() { return faults; }
    [[nodiscard]] VexaLibrary& Vexa() { return vexa; }
    [[nodiscard]] CriLibrary& Cri() { return cri; }

    [[nodiscard]] bool HasNode() const { return nodePresent; }
    // Hosts are served from the first call on: of all the processes that the program may start,
    // only the one that uses the node may accept them. Throws like Instance().
    [[nodiscard]] Cable& HostCable();

    // These also work before hosts are served.
    void ChangeCable(const CableSettings& settings);
    [[nodiscard]] CableState StateOfCable() const;

    // What requests refer to, as it is now.
    [[nodiscard]] UnitSettings Settings() const;
    [[nodiscard]] std::uint32_t Seed() const { return seed; }

    // Sends an event to everyone who listens on the control socket.
    void Publish(const Json& event);
    [[nodiscard]] bool HasListeners() const;

  private:
    explicit Unit(const Scenario& scenario);

    const CallLog calls;
    const std::uint32_t seed;
    FaultTable faults;
    VexaLibrary vexa;
    CriLibrary cri;
    const bool nodePresent;
    mutable Mutex cableMutex;
    CableSettings cableSettings VEXA_GUARDED_BY(cableMutex);
    std::unique_ptr<Cable> cable VEXA_GUARDED_BY(cableMutex);  // set once
    std::atomic<Cable*> servedCable = nullptr;                 // the same, for use without the lock
    // Last, as its thread uses all the others; may be none.
    std::unique_ptr<ControlServer> control;
    std::atomic<ControlServer*> publisher = nullptr;  // the same, for use on its own thread as well
};

}  // namespace vexa::unit
