#include "check/CheckCommand.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "check/Report.h"
#include "testkit/Descriptor.h"
#include "vexcri.h"
#include "zt_usb.h"

namespace vexa::unit {

namespace {

constexpr char kCriName[] = "libvexcri.so";
constexpr std::int32_t kSuccess = 1;
constexpr std::int32_t kMode = 1;

struct CriFunctions {
    decltype(criInit)* init = nullptr;
    decltype(criCommand)* command = nullptr;
    decltype(criTerminate)* terminate = nullptr;
};

void IgnoreAnswer(void* /*context*/, std::uint32_t /*command*/, std::int32_t /*response*/) {}

void CheckSession(const CriFunctions& library, const std::string& application, Report& report) {
    const std::string session = std::string(kCriName) + ": the session with " + application;
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

// Loads the session library; with `sessions` also opens and ends a session with each application
// that the service talks to. No command is sent.
void CheckCri(const std::string& path, bool sessions, Report& report) {
    SharedLibrary library(kCriName, path, report);
    CriFunctions functions;
    library.Find("criInit", functions.init);
    library.Find("criCommand", functions.command);
    library.Find("criTerminate", functions.terminate);
    if (!library.IsComplete("vexcri.h") || !sessions) return;
    for (const char* application : {"DAQ", "SPLASH", "FGEN"}) {
        CheckSession(functions, application, report);
    }
}

// Opens the node as the service does, and queries the state of the cable. Nothing is read or
// written.
void CheckNode(const std::string& path, Report& report) {
    report.Calling("open");
    const testkit::Descriptor node(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!node) {
        const bool isThere = errno != ENOENT;
        const std::string why = path + ": " + std::strerror(errno);
        if (!isThere) return report.Missing(why);
        return report.Odd(errno == EBUSY ? why + "; is the service running?" : why);
    }
    report.Ok(path + ": can be opened for reading and writing");
    constexpr int kUntouched = -7777;
    int cable = kUntouched;
    report.Calling("ioctl(ZTG_LINK_STATUS)");
    if (::ioctl(node.Get(), ZTG_LINK_STATUS, &cable) != 0) {
        return report.Odd(path + ": does not tell the cable's state, ioctl(ZTG_LINK_STATUS): " +
                          std::strerror(errno));
    }
    if (cable == kUntouched) {
        return report.Odd(path + ": ioctl(ZTG_LINK_STATUS) succeeds but fills in nothing");
    }
    report.Ok(path + ": the cable is " + (cable != 0 ? "in" : "out"));
}

}  // namespace

int CheckUnit(const CheckOptions& options) {
    Report report;
    report.Apart("libVEXA.so", [&] { CheckVexa(options.vexa, options.devices, report); });
    report.Apart("libvexcri.so", [&] { CheckCri(options.vexcri, options.sessions, report); });
    const std::string node = options.node.empty() ? ZT_USB_NODE : options.node;
    report.Apart(node, [&] { CheckNode(node, report); });
    std::printf("%s\n", report.IsGood() ? "The service will find what it needs."
                                        : "See the lines that begin with missing or odd.");
    return report.IsGood() ? 0 : 1;
}

}  // namespace vexa::unit
