// The example program: the whole service over TCP and over a serial line.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>

#include <cstdlib>

#include "e2e/RunningUnit.h"
#include "support/Loopback.h"

namespace vexa::test {
namespace {

using testkit::Descriptor;
using testkit::WaitUntil;

// Sync, take-over, a device opened and written to, as over USB.
void HoldASession(Host& host) {
    host.Send(InitialSync());
    host.Await("b8 1a 00");
    EXPECT_EQ(host.Ask(OpenController(false)), ControllerReply(0, 0x98, 0x72, 0));
    EXPECT_EQ(host.Ask(ToController(0x74, {})), ControllerReply(1, 0x98, 0x74, 0));
    EXPECT_EQ(host.Ask(OpenChild(5, "Stream")), ControllerReply(2, 0x98, 0x70, 0));
    EXPECT_EQ(host.Ask(Tunnel(5, {1, 2, 3})), ChildData(5, 0, {1, 2, 3}));
}

TEST(Example, ServesOneHostAfterTheOtherOverTcp) {
    const std::uint16_t port = FreePort();
    RunningUnit unit(kQuietUnit, {Program("transports"), "tcp", std::to_string(port)});
    for (std::size_t session = 1; session <= 2; ++session) {
        {
            Descriptor link;
            ASSERT_TRUE(WaitUntil(kPatience, [&] {
                link = Descriptor(ConnectLoopback(port));
                return static_cast<bool>(link);
            }));
            Host host(std::move(link));
            HoldASession(host);
        }
        EXPECT_TRUE(WaitUntil(kPatience, [&] {
            return unit.Calls("VEXA_Device_Stream_Close").size() == 2 * session;
        })) << "the host has gone: the sensor and the board are closed";
    }
    EXPECT_EQ(unit.Stop(), 0);
}

TEST(Example, ServesAHostOverASerialLine) {
    Descriptor line(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(grantpt(line.Get()) == 0 && unlockpt(line.Get()) == 0);
    RunningUnit unit(kQuietUnit, {Program("transports"), "serial", ptsname(line.Get()), "9600"});
    // The example sets the line when it has opened it.
    ASSERT_TRUE(WaitUntil(kPatience, [&] {
        termios settings{};
        return tcgetattr(line.Get(), &settings) == 0 &&
               (settings.c_cflag & static_cast<tcflag_t>(CBAUD)) == B9600;
    }));
    Host host(std::move(line));
    HoldASession(host);
    EXPECT_EQ(unit.Stop(), 0);
}

}  // namespace
}  // namespace vexa::test
