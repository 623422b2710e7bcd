// The unit around the service: one in each process, shared by the stand-in libraries and the node.
#pragma once

#include <memory>
#include <mutex>

#include "model/Cable.h"
#include "model/CriLibrary.h"
#include "model/Export.h"
#include "model/Journal.h"
#include "model/Scenario.h"
#include "model/VexaLibrary.h"

namespace vexa::unit {

class VEXA_UNIT_EXPORT Unit {
  public:
    // The process's unit, made on first use as the environment describes it (UnitEnvironment.h).
    // What makes that impossible is printed on standard error and ends the process with status 2.
    // Never destroyed: threads may use it until the process is gone.
    [[nodiscard]] static Unit& Instance();

    [[nodiscard]] const Journal& CallJournal() const { return journal; }
    [[nodiscard]] VexaLibrary& Vexa() { return vexa; }
    [[nodiscard]] CriLibrary& Cri() { return cri; }

    [[nodiscard]] bool HasNode() const { return nodePresent; }
    // Any thread. Hosts are served from the first call on: of the processes that a program may
    // start, only the one that uses the node may take them.
    [[nodiscard]] Cable& HostCable();

  private:
    explicit Unit(const Scenario& scenario);

    const Journal journal;
    VexaLibrary vexa;
    CriLibrary cri;
    const bool nodePresent;
    std::once_flag cableMade;
    std::unique_ptr<Cable> cable;  // set once, under cableMade
};

}  // namespace vexa::unit
