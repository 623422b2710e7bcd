#include "core/Service.h"

#include <array>
#include <cstdio>

#include "VEXA.h"
#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr char kModule[] = "VEXADevMgr";
constexpr int kStartingLine = 38;
constexpr int kVersionLine = 43;
constexpr int kErrorLine = 128;
constexpr int kStoppingLine = 130;

constexpr int kTraceThreshold = 1;
constexpr std::uint32_t kPauseMs = 10;

}  // namespace

void Service::Run() {
    if (StartUp()) {
        Loop();
    } else {
        Trace(kTraceLevel, "ERROR initializing VEXADevMgr.\n", kModule, kErrorLine);
    }
    ShutDown();
}

bool Service::StartUp() {
    SetTraceThreshold(kTraceThreshold);
    Trace(kTraceLevel, "VEXADevMgr version 1.37 is starting up.", kModule, kStartingLine);

    library = VEXA_Init();
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    VEXA_GetDLLVersion(library, &major, &minor);
    std::array<char, 100> version{};
    std::snprintf(version.data(), version.size(),
                  "VEXADevMgr is linked to libVEXA version %02d.%02d .", major, minor);
    Trace(kTraceLevel, version.data(), kModule, kVersionLine);
    VEXA_Diags_SetDebugTraceThreshold(library, kTraceThreshold);

    HostLink_Use(&hostLink);
    loop.Init(library);
    return HostLink_Open() == 1 && library != 0;
}

void Service::Loop() {
    while (!stopRequested) {
        if (!loop.Pass()) OSSleep(kPauseMs);
    }
}

void Service::ShutDown() {
    Trace(kTraceLevel, "VEXADevMgr is shutting down.", kModule, kStoppingLine);
    loop.DisconnectCleanUp();
    HostLink_Close();
    loop.ShutDown();
    if (library != 0) VEXA_Uninit(library);
    library = 0;
}

}  // namespace vexa
