// The example program on each of its transports: an initial sync goes in, the reply comes out.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include "e2e/RunningUnit.h"
#include "protocol/Replies.h"
#include "support/Loopback.h"

extern char** environ;  // NOLINT

namespace vexa::test {
namespace {

// The example, until it is told to end.
class RunningExample {
  public:
    explicit RunningExample(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), std::string(PROGRAM_DIR) + "/transports");
        std::vector<char*> words;
        for (std::string& argument : arguments) words.push_back(argument.data());  // NOLINT
        words.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&process, words[0], nullptr, nullptr, words.data(), environ), 0);
    }
    ~RunningExample() {
        kill(process, SIGTERM);
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    RunningExample(const RunningExample&) = delete;
    RunningExample& operator=(const RunningExample&) = delete;

  private:
    pid_t process = -1;
};

constexpr char kReply[] =
    "b8 1a 00 e9 1a 07 55 aa 56 a9 57 a8 58 a7 59 a6 5a a5 5b a4 5c a3 5d a2 5e a1";

// Sends a sync and reads the reply, unframed.
std::string SyncOver(int descriptor) {
    const Bytes sync = InitialSync();
    EXPECT_EQ(write(descriptor, sync.data(), sync.size()), static_cast<ssize_t>(sync.size()));
    Bytes reply;
    pollfd poller{descriptor, POLLIN, 0};
    while (reply.size() < 26 && poll(&poller, 1, 10000) == 1) {
        std::uint8_t byte = 0;
        if (read(descriptor, &byte, 1) != 1) break;
        reply.push_back(byte);
    }
    return ToHex(reply);
}

TEST(Example, AnswersOverTcp) {
    const std::uint16_t port = FreePort();
    const RunningExample example({"tcp", std::to_string(port)});
    for (int session = 0; session < 2; ++session) {
        int host = -1;
        while ((host = ConnectLoopback(port)) == -1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_EQ(SyncOver(host), kReply);
        close(host);
    }
    const std::string sync =
        std::string(PROGRAM_DIR) + "/vexa-host sync --tcp 127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(std::system(sync.c_str()), 0);  // NOLINT: as a person would
}

TEST(Example, AnswersOverASerialLine) {
    const int line = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(line) == 0 && unlockpt(line) == 0);
    {
        const RunningExample example({"serial", ptsname(line), "9600"});
        termios settings{};
        do {  // until the example has opened and set it
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            ASSERT_EQ(tcgetattr(line, &settings), 0);
        } while ((settings.c_cflag & static_cast<tcflag_t>(CBAUD)) != B9600);
        EXPECT_EQ(SyncOver(line), kReply);
    }
    close(line);
}

TEST(Example, AnswersOverTheGadgetNode) {
    RunningUnit unit("{}", {std::string(PROGRAM_DIR) + "/transports", "usb"});
    Host host(unit);
    EXPECT_EQ(host.Ask(InitialSync()), kReply);
}

}  // namespace
}  // namespace vexa::test
