#include "check/NodeCheck.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "model/Descriptor.h"
#include "zt_usb.h"

namespace vexa::unit {

void CheckNode(const std::string& path, Report& report) {
    report.Calling("open");
    const Descriptor node(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
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

}  // namespace vexa::unit
