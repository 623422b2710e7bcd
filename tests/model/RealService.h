// The service over scripted libraries and a queued link, as the model test drives it.
#pragma once

#include <cstdio>
#include <string>

#include "core/Service.h"
#include "model/Event.h"
#include "model/Outcome.h"
#include "support/QueuedHostLink.h"
#include "support/ScriptedLibraries.h"

namespace vexa::test {

class RealService {
  public:
    RealService();
    ~RealService();
    RealService(const RealService&) = delete;
    RealService& operator=(const RealService&) = delete;

    Outcome Take(const Event& event);

  private:
    std::int32_t Apply(const Event& event);

    FILE* const console;  // where standard output went before
    char* printed = nullptr;
    std::size_t printedSize = 0;
    std::size_t printedSeen = 0;
    ScriptedLibraries& script;
    QueuedHostLink link;
    Service service;
};

}  // namespace vexa::test
