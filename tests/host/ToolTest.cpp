// vexa-host as a program: what it prints, its exit codes, and what it leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "host/FakeService.h"

namespace vexahost::tool {
namespace {

using testing::AllOf;
using testing::HasSubstr;

TEST_F(ToolTest, WrongUseIsOneLineAndExitCodeTwo) {
    const std::pair<std::string, const char*> cases[] = {
        {"$HOST", "A subcommand is required"},
        {"$HOST sync --dir " + folder, "/host.sock: No such file or directory"},
        {"$HOST sync --dir /" + std::string(200, 'x'), "the path is too long for a socket"},
        {"$HOST stream A --for soon --dir " + folder, "--for soon: expected a time such as 3s"},
        {"$HOST stream --dir " + folder, "NAME is required"},
        {"$HOST stream A --format u9@1", "--format u9@1: \"u9\" is no type"},
        {"$HOST stream A --arm B", "--arm B: not among the devices"},
        {"$HOST send 4", "expected bytes in hex"},
        {"$HOST close 5", "\"5\": only the controller can be closed"},
        {"$HOST ping A -n 0", "Value 0 not in range"},
        {"$HOST sync --serial /dev/null", "it is not a terminal device"},
        {"$HOST sync --serial x --tcp y", "--tcp excludes --serial"},
        {"$HOST shell --script /none", "cannot read /none: No such file"},
        {"echo 'wait 1s\nrepeat 2' | $HOST shell", "standard input:2: \"repeat\" without \"end\""},
    };
    for (const auto& [line, message] : cases) {
        const auto ran = Run(line);
        EXPECT_EQ(ran.status, 2) << line;
        EXPECT_THAT(ran.output, AllOf(testing::StartsWith("vexa-host: "), HasSubstr(message)));
        EXPECT_EQ(std::ranges::count(ran.output, '\n'), 1) << ran.output;
    }
}

TEST_F(ToolTest, ExitCodesTellWhatTheUnitDid) {
    struct Case {
        const char* line;
        FakeService::Handler handler;
        int exitCode;
        const char* output;
    };
    const auto streamOneBlock = [](FakeService& self, const Bytes& packet) {
        FakeService::Obey(self, packet);
        if (packet[0] == 0x60 && packet[12] == 0x70) {
            self.SendFramed(ChildBlock(0x1001, 1, {0x05, 2, 0x10, 0xFF, 0xE8, 3, 0, 0}));
        }
    };
    const auto sendDaq = FakeService::On(0x74, [](FakeService& self, const Bytes& packet) {
        self.SendFramed(ControllerReply(1, 0, 0x98, 0x74, packet[10], 0));
        self.SendFramed(Bytes{0xA0, 6, 1, 0x55, 1, 2} + Sealed({0xA0, 5, 2, 0, 1}));
    });
    const auto refuseB = [](FakeService& self, const Bytes& packet) {
        if (packet[0] != 0x60 || packet[12] != 0x70 || packet[18] != 'B') {
            return FakeService::Obey(self, packet);
        }
        self.SendFramed(ControllerReply(1, 2, 0x9C, 0x70, packet[10], 54));
    };
    const auto echo = [](FakeService& self, const Bytes& packet) {
        FakeService::Obey(self, packet);
        if (packet[0] == 0x60 && packet[5] == 0x10) {
            self.SendFramed(ChildBlock(0x1001, 0, Part(packet, 8, packet.size())));
        }
    };
    const Case cases[] = {
        {"sync", FakeService::Obey, 0, "in step with the unit"},
        {"query", FakeService::Refuse(0x72, 59), 1,
         "vexa-host: open controller was refused: error 59, the DAQ did not"},
        {"query --json", FakeService::Obey, 0, R"({"daq_application_holds":false})"},
        {"takeover --for 100ms --json", sendDaq, 0, R"({"daq_packets":2,"held_s":0.1)"},
        {"takeover --for 100ms", sendDaq, 0, "held for 0.1 s: 2 DAQ packets, 1 with a wrong"},
        {"stream --daq --for 100ms", sendDaq, 0, "DAQ: 2 blocks, 11 bytes, 1 with a wrong"},
        {"sync", [](FakeService&, const Bytes&) {}, 3, "vexa-host: no answer in time to: initial"},
        {"sync", [](FakeService& self, const Bytes&) { self.SendBytes(Bytes(8)); }, 4,
         "bad frame header"},
        {"stream T --for 300ms", streamOneBlock, 0,
         "T              1.000 s: -240\nT: 1 blocks, 8 bytes, 1 gaps in the sequence, 0 blocks"},
        {"stream T --csv --for 300ms 2>&-", streamOneBlock, 0,
         "time_s,device,sequence,device_time_s,channel,index,value\n0.0"},
        {"stream T,1 --csv --for 300ms | tail -n1", streamOneBlock, 0,
         ",\"T,1\",1,1,value,0,-240\n"},
        {"stream T --json --for 300ms", streamOneBlock, 0,
         R"("device":"T","sequence":1,"device_time_s":1.0,"channels":{"value":[-240]}})"},
        {"stream T --format T:x=i8@2x2 --json --for 300ms", streamOneBlock, 0,
         R"("channels":{"x":[16,-1]}})"},
        {"stream T --format u8@8 --csv --for 300ms", streamOneBlock, 0,
         ",T,1,,bytes,0,05 02 10 ff e8 03 00 00\n"},
        {"send --to T 01 02 --for 300ms --json", FakeService::Obey, 3, "nothing came back"},
        {"send --seal 40 05 09 00 1a --for 300ms", FakeService::Obey, 0,
         "  initial-sync reply (request 9)"},
        {"open A B --for 100ms --json", refuseB, 1, R"({"child":4097,"device":"A","opened":true})"},
        {"open A B --for 100ms", refuseB, 1, "open B was refused: error 54"},
        {"close controller", FakeService::Obey, 0, "controller is closed"},
        {"ping T -n 3 --json", echo, 0, R"({"device":"T","bytes":8,"sent":3,"lost":0,"min_ms":)"},
        {"ping T -n 3 --timeout 50ms", FakeService::Obey, 3, "3 round trips, 3 lost"},
    };
    for (const Case& unit : cases) {
        FakeService service(unit.handler, Socket());
        const auto ran = Run(std::string("$HOST ") + unit.line);
        EXPECT_EQ(ran.status, unit.exitCode) << unit.line << ran.output;
        EXPECT_THAT(ran.output, HasSubstr(unit.output));
    }
}

TEST_F(ToolTest, DemoReportsAUnitThatFailsAndLeavesNothingBehind) {
    const std::string demo = "TMPDIR=" + folder + " $HOST demo -- ";
    const std::pair<std::string, const char*> cases[] = {
        {folder + "/none", "cannot start "},
        {"sh -c 'echo made > {dir}/file; echo here it is'", "unit | here it is"},
        // Neither ends at SIGTERM nor closes its output.
        {"sh -c 'trap \"\" TERM; sleep 1000 & wait; wait'", "The unit had to be killed."},
    };
    for (const auto& [unit, output] : cases) {
        const auto ran = Run(demo + unit);
        EXPECT_EQ(ran.status, 1);
        EXPECT_THAT(ran.output, AllOf(HasSubstr(output), HasSubstr("FAILED: expected "),
                                      HasSubstr("0 of 18 steps as expected")));
        EXPECT_TRUE(std::filesystem::is_empty(folder)) << unit;
    }
    // The unit itself interrupts the host, so that it surely runs by then.
    const auto ran = Run(demo + "sh -c 'echo up; kill -INT $PPID; sleep 1000'");
    EXPECT_EQ(ran.status, 130);
    EXPECT_THAT(ran.output, HasSubstr("Interrupted."));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

}  // namespace
}  // namespace vexahost::tool
