// vexa-host's shell: scripts, their outcomes and what they say.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "host/FakeService.h"
#include "protocol/Packet.h"
#include "tool/shell/Session.h"

namespace vexahost::tool {
namespace {

using testing::HasSubstr;

TEST(SplitLine, KnowsQuotesAndComments) {
    EXPECT_EQ(SplitLine("  open \"Acquisition board\"\t5 # why"),
              (Words{"open", "Acquisition board", "5"}));
    EXPECT_EQ(SplitLine("echo a#b \"\" \"# no\""), (Words{"echo", "a#b", "", "# no"}));
    EXPECT_EQ(SplitLine("# all"), Words{});
    EXPECT_EQ(SplitLine("open \"A"), std::nullopt);
}

// Obeys; refuses devices whose name begins with B, holds no hardware, hangs up at multiplexer
// commands, sends each device that opens two blocks with a gap between them, and after a take-over
// two DAQ packets, one of them damaged.
void Play(FakeService& self, const Bytes& packet) {
    if (packet[0] == 0x40 && packet[4] != 26) return self.HangUp();
    if (packet[0] == 0x60 && packet[12] == 0x70 && packet[18] == 'B') {
        return self.SendFramed(ControllerReply(1, 2, 0x9C, 0x70, packet[10], 54));
    }
    FakeService::Obey(self, packet);
    if (packet[0] == 0x60 && packet[12] == 0x74) {
        self.SendFramed(Bytes{0xA0, 6, 1, 0x55, 1, 2} + Sealed({0xA0, 5, 2, 0, 1}));
    }
    if (packet[0] != 0x60 || packet[12] != 0x70) return;
    for (const std::uint8_t sequence : Bytes{0, 2}) {
        self.SendFramed(ChildBlock(vexa::LoadLe32(packet, 13), sequence, {7}));
    }
}

TEST_F(ToolTest, ScriptsEndAtTheFirstCommandThatFails) {
    struct Case {
        const char* script;
        int exitCode;
        const char* output;
    };
    const Case cases[] = {
        {"controller\nopen A # why\nreceive A 2\ncheck A blocks = 2\ncheck 0x1001 gaps = 1\n", 0,
         "07\n07\nA blocks is 2\n0x1001 gaps is 1\nscript: 5 commands, all as expected\n"},
        {"controller\nopen A\nreceive A 2\ncheck A blocks > 2\necho never\n", 1,
         "script:4: check A blocks > 2: A blocks is 2, not > 2\n"},
        {"controller\nopen B\n", 1, "script:2: open B: open B was refused: error 54"},
        {"controller\nexpect refused open B\nexpect refused 54 open B\ntry open B\necho on\n", 0,
         "(open B was refused: error 54, the child could not be opened or closed)\non\n"},
        {"controller\nexpect refused 50 open B\n", 1, "unexpected outcome: open B was refused"},
        {"controller\nexpect refused open A\n", 1, "unexpected outcome: done"},
        {"controller\nexpect refused query holds\n", 1, "unexpected outcome: the DAQ application"},
        {"controller\nquery free\nexpect lost mux 5\nexpect lost sync\nreconnect\nexpect done sync",
         0, "nothing is open"},
        {"controller\ntakeover\nreceive daq 2\ncheck daq packets = 2\ncheck daq badsums = 1\n"
         "controller\ncheck daq packets = 0\nexpect timeout receive daq 1 10ms\n",
         0, "daq badsums is 1\nthe controller is open\ndaq packets is 0\n"},
        {"mux 5\n", 4, "script:1: mux 5: the link is lost"},
        {"repeat 2\n try mux 5\n echo never\nend\necho past\n", 0, "lost: the unit closed the "},
        {"repeat 2\n repeat 3\n  echo x\n end\nend\n", 0, "x\nx\nx\nx\nx\nx\nscript: 6 commands"},
        {"expect timeout receive daq 1 10ms\nreceive daq 1 10ms\n", 3, "nothing came in time"},
        {"try nonsense\n", 2, "script:1: try nonsense: no such command: nonsense"},
        {"check A blocks > 1\n", 2, "A is not open, or has no figure \"blocks\""},
        {"open\n", 2, "usage: open NAME [ID]"},
        {"quit\nnonsense\n", 0, "1 commands, all as expected"},
    };
    for (const Case& each : cases) {
        FakeService service(Play, Socket());
        std::ofstream(folder + "/script") << each.script;
        const auto ran = Run("cd " + folder + "; $HOST shell --script script");
        EXPECT_EQ(ran.status, each.exitCode) << each.script << ran.output;
        EXPECT_THAT(ran.output, HasSubstr(each.output)) << each.script;
        EXPECT_THAT(ran.output, testing::Not(HasSubstr("never"))) << each.script;
    }
}

}  // namespace
}  // namespace vexahost::tool
