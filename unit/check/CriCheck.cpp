#include "check/CriCheck.h"

#include <cstdint>

#include "check/SharedLibrary.h"
#include "vexcri.h"

namespace vexa::unit {

namespace {

constexpr char kName[] = "libvexcri.so";
constexpr std::int32_t kSuccess = 1;
constexpr std::int32_t kMode = 1;

struct Functions {
    decltype(criInit)* init = nullptr;
    decltype(criCommand)* command = nullptr;
    decltype(criTerminate)* terminate = nullptr;
};

void IgnoreAnswer(void* /*context*/, std::uint32_t /*command*/, std::int32_t /*response*/) {}

void CheckSession(const Functions& library, const std::string& application, Report& report) {
    const std::string session = std::string(kName) + ": the session with " + application;
    std::uint32_t handle = 0;
    report.Calling("criInit");
    const auto begun = library.init(application.c_str(), kMode, IgnoreAnswer, nullptr, &handle);
    if (begun != kSuccess) {
        return report.Odd(session + " is refused: criInit gave " + std::to_string(begun) +
                          ", where 1 is success");
    }
    if (handle == 0) return report.Odd(session + " has the handle 0, which stands for none");
    report.Calling("criTerminate");
    const auto ended = library.terminate(handle, kMode);
    if (ended != kSuccess) {
        return report.Odd(session + " does not end: criTerminate gave " + std::to_string(ended));
    }
    report.Ok(session + " begins and ends");
}

}  // namespace

void CheckCri(const std::string& path, bool sessions, Report& report) {
    SharedLibrary library(kName, path, report);
    Functions functions;
    library.Find("criInit", functions.init);
    library.Find("criCommand", functions.command);
    library.Find("criTerminate", functions.terminate);
    if (!library.IsComplete("vexcri.h") || !sessions) return;
    for (const char* application : {"DAQ", "SPLASH", "FGEN"}) {
        CheckSession(functions, application, report);
    }
}

}  // namespace vexa::unit
