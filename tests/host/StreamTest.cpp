// vexa-host stream and decode: where samples go, and what a lost link leaves.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>

#include "host/FakeService.h"
#include "testkit/ChildProcess.h"

namespace vexahost::tool {
namespace {

class Stream : public testing::Test {
  protected:
    Stream() {
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/devices.json") << R"({"T": {"check": "report", "channels": [
                {"name": "t", "type": "i16le", "offset": 2, "count": 1, "scale": 0.5, "unit": "C"}]}})";
    }
    ~Stream() override { std::filesystem::remove_all(folder); }

    // What a script in the folder prints; $host is the program. Times, which begin with a digit and
    // have six decimals, become T, and what looks like 2026-11-22T08:15:18.000000Z becomes UTC.
    std::string Run(const std::string& script) const {
        return vexa::testkit::RunShell(
                   "cd " + folder + "; host=" VEXA_HOST_PROGRAM "; export VEXA_UNIT_DIR=.; (" +
                   script + ") | sed -E 's/[0-9-]{10}T[0-9:.]*Z/UTC/g;s/[0-9]+[.][0-9]{6}/T/g'")
            .output;
    }

    // A report of -240 as soon as a device is opened.
    static void Report(FakeService& self, const Bytes& packet) {
        FakeService::Obey(self, packet);
        if (CommandOf(packet) != 0x70) return;
        self.SendFramed(
            Tunnel(vexa::LoadLe32(packet, 13), {0x05, 2, 0x10, 0xFF, 0xE8, 3, 0, 0}, 1));
    }

    const std::string folder = testing::TempDir() + "vexa-stream-" + std::to_string(getpid());
};

TEST_F(Stream, GoesOnAfterALostLinkInTheSameFile) {
    std::atomic<int> reports{0};
    const auto hangUpOnce = [&](FakeService& self, const Bytes& packet) {
        Report(self, packet);
        if (CommandOf(packet) == 0x70 && ++reports == 1) self.HangUp();
    };
    const FakeService service(hangUpOnce, folder + "/host.sock");
    EXPECT_EQ(Run("$host stream T --csv --out . --reconnect --for 5s 2>log; cat T.csv; "
                  "grep -c 'connecting again' log"),
              "# start UTC, device T, child 4097\ntime_s,value\nT,-240\n"
              "# link lost at T, back at T\nT,-240\n1\n");
    EXPECT_EQ(reports, 2);
}

TEST_F(Stream, RecordsWhatItShowsAndShowsWhatWasRecorded) {
    const FakeService service(Report, folder + "/host.sock");
    const std::string columns = "# start UTC, device T, child 4097\n";
    EXPECT_EQ(Run("$host stream T --csv --record r --for 300ms --devices devices.json 2>&-"),
              columns + "time_s,t [C]\nT,-120\n");
    for (const char* again : {"$host decode r --csv --iso 2>&-",
                              "cat r | $host decode - --csv --iso "
                              "--device T 2>&-",
                              "$host stream --from r --csv --iso 2>&-"}) {
        EXPECT_EQ(Run(again), columns + "time_utc,value\nUTC,-240\n") << again;
    }
    EXPECT_EQ(Run("$host decode r --wav 2>&-; od -An -tx1 -j20 T.wav; "
                  "$host decode r --wav --devices devices.json 2>&-; od -An -tf4 -j44 T.t.wav"),
              " 01 00 01 00 01 00 00 00 02 00 00 00 02 00 10 00\n 64 61 74 61 02 00 00 00 10 ff\n"
              "            -120\n");
    const std::pair<const char*, std::string> ends[] = {
        {"$host decode r --csv --device U 2>&1",
         "vexa-host: U has sent nothing in this recording; what has: T\n"},
        {"mkdir o; ln -s /dev/full o/T.csv; $host decode r --csv --out o 2>&1 | tail -n1",
         "vexa-host: cannot write o/T.csv: No space left on device\n"},
        {"$host stream --from r --csv --out o 2>&1 | tail -n1",
         "vexa-host: cannot write o/T.csv: No space left on device\n"},
        {"$host stream a/b a_b --csv --out n --for 300ms 2>&-; grep -h start n/a_b.csv n/a_b-2.csv",
         "# start UTC, device a/b, child 4097\n# start UTC, device a_b, child 4098\n"},
        // What stands before a fault is shown.
        {"(cat r; echo) >s; $host decode s --csv 2>&1 | sed 's/ at byte.*//'",
         columns + "time_s,value\nT,-240\nT: 1 blocks, 1 samples, 0 gaps in the sequence\n"
                   "vexa-host: s: the capture breaks off,\n"},
        {"$host stream --from s --csv 2>&1 >o/s | tail -n1 | sed 's/ at byte.*//'; cat o/s",
         "vexa-host: s: the capture breaks off,\n" + columns + "time_s,value\nT,-240\n"},
    };
    for (const auto& [script, output] : ends) EXPECT_EQ(Run(script), output) << script;
}

TEST_F(Stream, FeedsAPlotter) {
    const FakeService service(Report, folder + "/host.sock");
    const vexa::testkit::Descriptor plotter(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(plotter.Get(), generic, size), 0);
    ASSERT_EQ(getsockname(plotter.Get(), generic, &size), 0);
    Run("$host stream T --for 300ms --devices devices.json --teleplot 127.0.0.1:" +
        std::to_string(ntohs(address.sin_port)));
    std::array<char, 100> text{};
    ASSERT_GT(recv(plotter.Get(), text.data(), text.size(), MSG_DONTWAIT), 0);
    EXPECT_THAT(text.data(), testing::MatchesRegex("t:[0-9]+[.][0-9]+:-120§C[|]g\n"));
}

TEST_F(Stream, WaitsForAUnit) {
    vexa::testkit::ProcessCall call;
    call.command = {VEXA_HOST_PROGRAM, "sync", "--dir", folder, "--wait", "20s"};
    vexa::testkit::ChildProcess host(call);
    ASSERT_NE(host.Log().WaitFor("waiting for the unit", std::chrono::seconds(20)),
              std::string::npos);
    const FakeService service(FakeService::Obey, folder + "/host.sock");
    EXPECT_NE(host.Log().WaitFor("in step with the unit", std::chrono::seconds(20)),
              std::string::npos);
    EXPECT_EQ(host.Wait(std::chrono::seconds(20)), 0);
}

}  // namespace
}  // namespace vexahost::tool
