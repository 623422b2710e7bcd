// vexa-host record: what it leaves alone, and how it ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>

#include <atomic>
#include <filesystem>
#include <optional>

#include "host/FakeService.h"
#include "testkit/ChildProcess.h"
#include "testkit/Wait.h"
#include "vexahost/SocketTransport.h"

namespace vexahost::tool {
namespace {

using vexa::testkit::ChildProcess;
using vexa::testkit::WaitUntil;

constexpr std::chrono::milliseconds kLong{20000};

class Record : public testing::Test {
  protected:
    Record() { std::filesystem::create_directories(folder + "/tmp"); }
    ~Record() override { std::filesystem::remove_all(folder); }

    // "vexa-host record FILE" with these words after it.
    [[nodiscard]] ChildProcess Start(std::vector<std::string> words) const {
        vexa::testkit::ProcessCall call;
        call.command = {VEXA_HOST_PROGRAM, "record", folder + "/file"};
        call.command.insert(call.command.end(), words.begin(), words.end());
        call.environment = {{"TMPDIR", folder + "/tmp"}};
        return ChildProcess(call);
    }

    const std::string folder = testing::TempDir() + "vexa-record-" + std::to_string(getpid());
};

TEST_F(Record, LeavesAloneWhatIsNotItsOwn) {
    const FakeService service(FakeService::Obey, folder + "/host.sock");
    const auto ran = vexa::testkit::RunShell("cd " + folder + "; host=" VEXA_HOST_PROGRAM R"(
        export VEXA_UNIT_DIR=.
        echo former > file; ln -s file link; mkfifo fifo; mkdir here; echo precious > here/host.sock
        for name in file link fifo; do $host record $name -- ./none 2>&-; echo $?; done
        $host record file --listen here --for 1s 2>&-; echo $?
        $host record file --dir none -- $host sync 2>&-; echo $?
        cat link here/host.sock; test -p fifo && echo fifo
        $host record link -- $host sync >/dev/null 2>&1; echo $?
        test -L link && $host decode file 2>&- | grep -m1 -c initial-sync)");
    EXPECT_EQ(ran.output, "2\n2\n2\n2\n4\nformer\nprecious\nfifo\n0\n1\n");
}

TEST_F(Record, EndsInTimeWhileTheHostGoesOnTalking) {
    const FakeService service(FakeService::Obey, folder + "/host.sock");
    std::optional<ChildProcess> record;
    std::unique_ptr<Transport> host;
    // On a machine that stands still its time may be over before the host has connected.
    ASSERT_TRUE(WaitUntil(kLong, [&] {
        if (!record || record->Status()) {
            record.emplace(
                Start({"--dir", folder, "--listen", folder + "/here", "--for", "300ms"}));
        }
        if (auto made = SocketTransport::ConnectUnit(folder + "/here")) host = std::move(*made);
        return host != nullptr;
    }));
    const Deadline deadline = DeadlineAfter(kLong);
    while (host->WriteAll(Tunnel(10, {1, 2, 3}, 0), deadline)) continue;
    EXPECT_EQ(record->Wait(kLong), 0) << record->Log().Text();
}

TEST_F(Record, IsPlayedToASlowUnitThatAnswersARepeatedSyncTwice) {
    std::atomic<bool> isSlow{false};
    std::atomic<int> syncs{0};
    const auto answer = [&](FakeService& self, const Bytes& packet) {
        if (isSlow && ++syncs == 1) return;
        FakeService::Obey(self, packet);
        if (isSlow && syncs == 2) FakeService::Obey(self, packet);
    };
    const FakeService service(answer, folder + "/host.sock");
    auto record = Start({"--dir", folder, "--", VEXA_HOST_PROGRAM, "sync"});
    EXPECT_EQ(record.Wait(kLong), 0) << record.Log().Text();
    isSlow = true;
    const auto ran = vexa::testkit::RunToEnd(
        {VEXA_HOST_PROGRAM, "replay", "--fast", folder + "/file", "--dir", folder});
    EXPECT_EQ(ran.status, 0) << ran.output;
    EXPECT_GE(syncs, 2);
}

TEST_F(Record, LeavesNothingBehindAtASecondSignal) {
#ifdef VEXA_EMULATED
    GTEST_SKIP() << "under the emulator the line keeps its settings";
#endif
    const vexa::testkit::Descriptor unit(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(grantpt(unit.Get()) == 0 && unlockpt(unit.Get()) == 0);
    const std::string path = ptsname(unit.Get());
    const vexa::testkit::Descriptor line(open(path.c_str(), O_RDWR | O_NOCTTY));
    const auto isRaw = [&] {
        termios now{};
        return tcgetattr(line.Get(), &now) == 0 && (now.c_lflag & ICANON) == 0;
    };
    ASSERT_FALSE(isRaw());
    auto record = Start({"--serial", path, "--", VEXA_HOST_PROGRAM, "sync", "--wait", "20s"});
    pollfd fromHost{unit.Get(), POLLIN, 0};  // readable: the line is set up, signals are handled
    ASSERT_EQ(poll(&fromHost, 1, static_cast<int>(kLong.count())), 1) << record.Log().Text();
    ASSERT_TRUE(isRaw());
    for (const int number : {SIGINT, SIGTERM}) record.Signal(number);
    EXPECT_EQ(record.Wait(kLong), 130);
    EXPECT_FALSE(isRaw());
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/tmp"));
}

}  // namespace
}  // namespace vexahost::tool
