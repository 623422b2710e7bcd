#include "check/CheckCommand.h"

#include <cstdio>

#include "check/CriCheck.h"
#include "check/NodeCheck.h"
#include "check/Report.h"
#include "check/VexaCheck.h"
#include "zt_usb.h"

namespace vexa::unit {

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
