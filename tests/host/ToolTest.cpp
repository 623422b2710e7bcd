// vexa-host as a program: what it prints, its exit codes, and what it leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "host/FakeService.h"
#include "testkit/ChildProcess.h"

namespace vexahost::tool {
namespace {

using testing::HasSubstr;

// Obeys; refuses devices whose name begins with B, holds no hardware, hangs up at multiplexer
// commands, and echoes 8 bytes to a device. Of device T comes one report, of
// others two blocks with a gap between them; after a take-over two DAQ packets, one damaged.
void Play(FakeService& self, const Bytes& packet) {
    const std::uint8_t command = CommandOf(packet);
    if (packet[0] == 0x40 && command != 26) return self.HangUp();
    if (command == 0x70 && packet[18] == 'B') {
        return self.SendFramed(Reply(1, 0x9C, 0x70, packet[10], 54));
    }
    FakeService::Obey(self, packet);
    if (command == 0x74) {
        self.SendFramed(Bytes{0xA0, 6, 1, 0x55, 1, 2} + Sealed({0xA0, 5, 2, 0, 1}));
    } else if (command == 0x70 && packet[18] == 'T') {
        self.SendFramed(Tunnel(0x1001, {0x05, 2, 0x10, 0xFF, 0xE8, 3, 0, 0}, 1));
    } else if (command == 0x70) {
        const std::uint32_t child = vexa::LoadLe32(packet, 13);
        self.SendFramed(Tunnel(child, {7}, 0) + Tunnel(child, {7}, 2));
    } else if (packet.size() == 16 && packet[5] == 0x10) {
        self.SendFramed(Tunnel(0x1001, Part(packet, 8, packet.size()), 0));
    }
}

TEST(Tool, PrintsWhatHappenedAndExitsAccordingly) {
    const auto refuse = [](FakeService& self, const Bytes& packet) {
        if (CommandOf(packet) != 0x72) return FakeService::Obey(self, packet);
        self.SendFramed(Reply(1, 0x9C, 0x72, packet[10], 59));
    };
    const auto turnAway = [](FakeService& self, const Bytes&) {
        self.SendBytes({0, 0, 0, 0, 'B', 'U', 'S', 'Y'});
    };
    struct Case {
        std::string input;  // arguments, or the lines of a script
        int exitCode;
        const char* output;
        FakeService::Handler handler = Play;
    };
    const Case cases[] = {
        {"sync --dir /proc", 2, "/proc/host.sock: No such file or directory"},
        {"sync --dir /" + std::string(200, 'x'), 2, "the path is too long for a socket"},
        {"stream A --for soon", 2, "--for soon: expected a time such as 3s"},
        {"stream", 2, "NAME is required"},
        {"stream A --format u9@1", 2, "--format u9@1: \"u9\" is not a type"},
        {"stream A --arm B", 2, "--arm B: not among the devices"},
        {"send 4", 2, "expected bytes in hex"},
        {"close 5", 2, "\"5\": only the controller can be closed"},
        {"sync --serial /dev/null", 2, "it is not a terminal device"},
        {"shell --script /none", 2, "cannot read /none: No such file"},
        {"sync", 0, "in step with the unit"},
        {"query", 1, "vexa-host: open controller was refused: error 59, the DAQ did not", refuse},
        {"query --json", 0, R"({"daq_application_holds":false})"},
        {"query", 5, "another host is connected to the unit", turnAway},
        {"query >/dev/full", 6, "cannot write to standard output: No space left on device"},
        {"query >&-", 6, "cannot write to standard output: it is closed"},
        {"query | :", 0, ""},
        {"straem A", 2, "no such command: straem; did you mean stream?"},
        {"--dir /proc sync", 2, "/proc/host.sock: No such file"},
        {"sync --tcp localhost:99999", 2, "\"localhost:99999\" is no address"},
        {"sync", 4, "bad frame header", [](auto& self, auto&) { self.SendBytes(Bytes(8)); }},
        {"takeover --for 100ms --json | grep -E '\"held_s\":(0[.])?[1-9]'", 0,
         R"({"daq_packets":2,)"},
        {"stream --daq --for 100ms", 0,
         "DAQ: 2 blocks, 11 bytes, 0 gaps in the sequence, 1 with a wrong"},
        {"stream T --for 300ms", 0,
         "T              1.000 s: -240\nT: 1 blocks, 8 bytes, 1 gaps in the sequence, 0 blocks"},
        {"stream T --csv --for 300ms 2>&- | sed 's/2.*Z/UTC/;s/^[0-9]*[.][0-9]*[1-9][0-9]*/NOW/'",
         0, "# start UTC, device T, child 4097\ntime_s,value\nNOW,-240\n"},
        {"stream T,1 --csv --iso --long --format w=i8@2 --for 300ms | tail -n1", 0,
         "Z,\"T,1\",4097,w,,16\n"},
        {"stream T --csv --for 300ms | sleep 3", 0, "T: 1 blocks, 8 bytes"},
        {"stream T U --format U:i8@0 --json --for 300ms", 0,
         R"(,"device_time_s":1.0,"channels":{"value":[-240]}})"},
        {"stream T --format T:x=i8@2x2 --json --for 300ms", 0, R"("channels":{"x":[16,-1]}})"},
        {"stream T --format u8@8 --csv --long --for 300ms", 0,
         ",T,4097,bytes,,05 02 10 ff e8 03 00 00\n"},
        {"stream T --format u8@8 --csv --for 300ms", 0, "time_s\nT: 1 blocks"},
        {"stream T U --csv --wide", 2, "several devices have no sample times in common"},
        {"stream T --devices /none", 2, "cannot read /none: No such file"},
        {"stream T --devices /", 2, "cannot read /: Is a directory"},
        {"stream T --record - --csv", 2, "standard output takes the stream"},
        {"stream --from - --csv", 2, "--from -: a recording is read twice"},
        {"stream T --epoch", 2, "--epoch requires --csv"},
        {"send --to T 01 02 --for 300ms --json", 3, "nothing came back", FakeService::Obey},
        {"send --seal 40 05 09 00 1a --for 300ms", 0, "  initial-sync reply (request 9)"},
        {"open A B --for 100ms --json", 1, R"({"child":4097,"device":"A","opened":true})"},
        {"close controller", 0, "controller is closed"},
        {"ping E -n 3 --timeout 20s --json", 0,
         R"({"device":"E","bytes":8,"sent":3,"lost":0,"min_ms":)"},
        {"ping E -n 3", 3, "1 round trips, 1 lost\nvexa-host: E has sent", FakeService::Obey},
        {"demo -- /none", 1, "FAILED: expected the unit to start, got cannot start "},
        {"demo -- sh -c 'echo made > {dir}/file; echo here'", 1, "unit | here"},
        {"demo -- false", 1, "0 of 18 steps as expected"},
        // Interrupts the host, so that it surely runs by then; neither ends at SIGTERM nor closes
        // its output.
        {"demo -- sh -c 'trap \"\" TERM; kill -INT $PPID; sleep 1000 & wait; wait'", 130,
         "The unit had to be killed.\n\nInterrupted."},
        // Scripts end at the first command that fails.
        {"wait 1s\nrepeat 2\n", 2, "standard input:2: \"repeat\" without \"end\""},
        {"controller\nopen \"A b\" # why\nreceive \"A b\" 2\ncheck 0x1001 gaps = 1\n"
         "echo a#b \"\" \"# no\"\n",
         0, "07\n07\n0x1001 gaps is 1\na#b  # no\nstandard input: 5 commands, all as expected\n"},
        {"echo \"A\n", 2, "standard input:1: "},
        {"controller\nopen A\nreceive A 2\ncheck A blocks > 2\necho never\n", 1,
         "standard input:4: check A blocks > 2: A blocks is 2, not > 2\n"},
        {"controller\nexpect refused open B\nexpect refused 54 open B\ntry open B\necho on\n", 0,
         "(open B was refused: error 54, the child could not be opened or closed; the unit has "},
        {"controller\nexpect refused 50 open B\n", 1, "unexpected outcome: open B was refused"},
        {"controller\nexpect refused open A\n", 1, "unexpected outcome: done"},
        {"controller\nquery free\nexpect refused query holds\n", 1, "unexpected outcome: the DAQ"},
        {"expect lost mux 5\nexpect lost sync\nreconnect\nexpect done sync\n", 0,
         "nothing is open"},
        {"controller\ntakeover\nreceive daq 2\ncheck daq packets = 2\ncheck daq badsums = 1\n"
         "controller\ncheck daq packets = 0\nexpect timeout receive daq 1 10ms\n",
         0, "daq badsums is 1\nthe controller is open\ndaq packets is 0\n"},
        {"mux 5\n", 4, "standard input:1: mux 5: the link is lost"},
        {"repeat 2\n try mux 5\n echo never\nend\necho past\n", 0, "lost: the unit closed the "},
        {"repeat 2\n repeat 3\n  echo x\n end\nend\n", 0, "x\nx\nx\nx\nx\nx\nstandard input: 6 "},
        {"expect timeout receive daq 1 10ms\nreceive daq 1 10ms\n", 3, "nothing came in time"},
        {"try nonsense\n", 2, "standard input:1: try nonsense: no such command: nonsense"},
        {"check A blocks > 1\n", 2, "check A blocks > 1: A is not open"},
        {"check daq blcks > 1\n", 2, "daq has no figure \"blcks\": there are packets"},
        {"open A\n", 2, "the controller is not open"},
        {"open\n", 2, "usage: open NAME [ID]"},
        {"quit\nnonsense\n", 0, "1 commands, all as expected"},
    };
    std::string folder = testing::TempDir() + "vexa-host-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string temporary = folder + "/tmp";
    std::filesystem::create_directory(temporary);
    for (const auto& [input, exitCode, output, handler] : cases) {
        SCOPED_TRACE(input);
        const FakeService service(handler, folder + "/host.sock");
        const std::string run =
            "TMPDIR=" + temporary + " VEXA_UNIT_DIR=" + folder + " " + VEXA_HOST_PROGRAM + " ";
        const bool isScript = input.ends_with('\n');
        const std::string report = folder + "/report.tap";
        const std::string shell = "shell --report " + report + " <<'END'\n" + input + "END";
        const auto ran = vexa::testkit::RunShell(run + (isScript ? shell : input));
        EXPECT_EQ(ran.status, exitCode) << ran.output;
        EXPECT_THAT(ran.output, HasSubstr(output));
        EXPECT_THAT(ran.output, testing::Not(HasSubstr("never")));
        EXPECT_TRUE(std::filesystem::is_empty(temporary)) << "something is left behind";
        if (isScript && exitCode != 2) {
            const auto tap = vexa::testkit::RunShell("cat " + report).output;
            EXPECT_THAT(tap, testing::StartsWith("TAP version 13\n1.."));
            EXPECT_EQ(tap.find("\nnot ok ") != std::string::npos, exitCode != 0) << tap;
        }
        if (exitCode != 2) continue;
        EXPECT_THAT(ran.output, testing::StartsWith("vexa-host: "));
        EXPECT_EQ(std::ranges::count(ran.output, '\n'), 1) << "one line: " << ran.output;
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace vexahost::tool
