// The node "/dev/zt-usb" through the system calls of this process, with a host at the other end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "unit/UnitUnderTest.h"
#include "zt_usb.h"

namespace vexa::unit {
namespace {

[[nodiscard]] bool Has(const Descriptor& host, short event) {
    pollfd entry{host.Get(), event, 0};
    return ::poll(&entry, 1, 0) == 1;
}

class Node : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(node) << errno;
        ASSERT_TRUE(Eventually([&] { return !CableIsIn(); }));
    }

    [[nodiscard]] bool CableIsIn() const {
        int status = -1;
        EXPECT_EQ(::ioctl(node.Get(), ZTG_LINK_STATUS, &status), 0);
        return status != 0;
    }
    [[nodiscard]] Descriptor Connect() const { return ConnectTo(HostSocketPath(folder)); }
    [[nodiscard]] Descriptor PlugIn() const {
        Descriptor host = Connect();
        EXPECT_TRUE(Eventually([&] { return CableIsIn(); }));
        return host;
    }
    [[nodiscard]] std::string Read() const {
        std::array<char, 3000> bytes{};
        const auto got = ::read(node.Get(), bytes.data(), bytes.size());
        return got < 0 ? "errno " + std::to_string(errno)
                       : std::string(bytes.data(), static_cast<std::size_t>(got));
    }

    const std::string& folder = UnitFolder();
    const Descriptor node{::open(ZT_USB_NODE, O_RDWR | O_EXCL)};
};

TEST_F(Node, TheCableIsInWhileAHostIsConnected) {
    EXPECT_EQ(::write(node.Get(), "x", 1), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    Descriptor host = PlugIn();
    EXPECT_EQ(Receive(Connect(), 9), std::string("\0\0\0\0BUSY", 8)) << "one host at a time";
    EXPECT_EQ(::write(node.Get(), "to the host", 11), 11);
    EXPECT_EQ(Receive(host, 11), "to the host");
    EXPECT_EQ(::send(host.Get(), "last words", 10, 0), 10);
    host.Close();
    EXPECT_TRUE(Eventually([&] { return !CableIsIn(); })) << "nobody reads, and yet it is noticed";
    EXPECT_EQ(Read(), "last words") << "what a host sent before it left can still be read";

    host = PlugIn();
    host.Close();
    host = Connect();
    ASSERT_EQ(::send(host.Get(), "new", 3, 0), 3);
    EXPECT_TRUE(Eventually([&] { return !CableIsIn(); })) << "seen, although another host waits";
    EXPECT_TRUE(Eventually([&] { return CableIsIn(); }));
    EXPECT_EQ(Read(), "new");
}

TEST_F(Node, ABlockedReadOutlivesTheCableAndEndsWithASignal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const std::string interrupted = "errno " + std::to_string(EINTR);
    Collected<std::string> reads;
    std::thread reader([&] {
        for (std::string got; got != interrupted; reads.Add(got)) got = Read();
    });
    for (const std::size_t count : {1U, 2U}) {
        const Descriptor host = Connect();
        ASSERT_EQ(::send(host.Get(), "one", 3, 0), 3);
        (void)reads.Await(count);
    }
    // Sent again and again: it may come before the call that it is to interrupt.
    EXPECT_TRUE(Eventually([&] {
        if (reads.Now().size() == 3) return true;
        ::pthread_kill(reader.native_handle(), SIGUSR1);
        return false;
    }));
    reader.join();
    EXPECT_EQ(reads.Now(), (std::vector<std::string>{"one", "one", interrupted}));
}

TEST_F(Node, WhateverBecomesOfItsNumbersOnlyItsDescriptorsAreTheNode) {
    const Descriptor other(::open("/dev/zero", O_RDWR));
    const std::pair<const char*, int (*)(int, int)> ways[] = {
        {"dup2", [](int from, int to) { return ::dup2(from, to); }},
        {"fclose", [](int from, int to) {
             return ::fclose(::fdopen(to, "r")) == 0 ? ::fcntl(from, F_DUPFD_CLOEXEC, to) : -1;
         }}};
    for (const auto& [name, replace] : ways) {
        const int opened = ::open(ZT_USB_NODE, O_RDWR);
        const Descriptor file(replace(other.Get(), opened));
        ASSERT_EQ(file.Get(), opened) << name;
        int status = 0;
        EXPECT_NE(::ioctl(file.Get(), ZTG_LINK_STATUS, &status), 0) << name;
        EXPECT_EQ(::read(file.Get(), &status, 1), 1) << name << ": a read of the node would wait";
    }
    const Descriptor host = PlugIn();
    const Descriptor copy(::dup(node.Get()));
    EXPECT_EQ(::write(copy.Get(), "copy", 4), 4) << "a duplicate is the node";
    EXPECT_EQ(Receive(host, 4), "copy");
    std::FILE* const stream = std::fopen(ZT_USB_NODE, "r+");
    ASSERT_NE(stream, nullptr);
    EXPECT_GE(std::fputs("stdio", stream), 0);
    EXPECT_EQ(std::fclose(stream), 0);
    EXPECT_EQ(Receive(host, 5), "stdio");
    ASSERT_EQ(::send(host.Get(), "line\n", 5, 0), 5);
    std::string line;
    std::ifstream in(ZT_USB_NODE);
    EXPECT_TRUE(std::getline(in, line));
    EXPECT_EQ(line, "line");
}

TEST_F(Node, WithoutDescriptorsAHostIsTurnedAwayAndTheNextOneServed) {
#ifdef VEXA_UBSAN
    GTEST_SKIP() << "UBSan needs descriptors itself, to look at the exceptions that are thrown";
#endif
    const Descriptor early(::socket(AF_UNIX, SOCK_STREAM, 0));
    Descriptor lowest(::dup(early.Get()));
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    // One is left, for the connection, and none for what it takes to serve it.
    rlimit scarce = former;
    scarce.rlim_cur = static_cast<rlim_t>(lowest.Get()) + 1;
    lowest.Close();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &scarce), 0);
    sockaddr_un address{AF_UNIX, {}};
    HostSocketPath(folder).copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(early.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(Receive(early, 1), "") << "turned away";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    for (const char* const words : {"one", "two"}) {
        Descriptor host = PlugIn();
        ASSERT_EQ(::send(host.Get(), words, 3, 0), 3);
        EXPECT_EQ(Read(), words);
        host.Close();
        EXPECT_TRUE(Eventually([&] { return !CableIsIn(); }));
    }
}

TEST_F(Node, OtherFilesAreLeftAlone) {
    const int opened = ::open(ZT_USB_NODE, O_RDWR);
    ASSERT_EQ(::close(opened), 0);
    const Descriptor file(::open((folder + "/file").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(file.Get(), opened) << "a number that was the node's and is now a file's";
    struct stat status {};
    ASSERT_EQ(::fstat(file.Get(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << "the mode reached the file that was made";
    EXPECT_EQ(::write(file.Get(), "text", 4), 4);
}

TEST_F(Node, FaultsSpoilItsSystemCalls) {
    Ask("fault.set", R"("call": "node.open", "action": "fail", "errno": "ENODEV", "count": 1)");
    EXPECT_LT(::open(ZT_USB_NODE, O_RDWR), 0);
    EXPECT_EQ(errno, ENODEV);
    const Descriptor host = PlugIn();
    Ask("fault.set", R"("call": "node.ioctl", "action": "fail", "count": 1)");
    int isIn = 0;
    EXPECT_EQ(::ioctl(node.Get(), ZTG_LINK_STATUS, &isIn), -1);
    EXPECT_EQ(errno, EIO);
    Ask("fault.set", R"("call": "node.write", "action": "short", "bytes": 4, "count": 1)");
    EXPECT_EQ(::write(node.Get(), "to the host", 11), 4);
    EXPECT_EQ(Receive(host, 4), "to t");
    Ask("fault.set", R"("call": "node.read", "action": "fail", "errno": "EINTR", "count": 1)");
    Ask("fault.set", R"("call": "node.read", "action": "short", "bytes": 2, "skip": 1)");
    ASSERT_EQ(::send(host.Get(), "abc", 3, 0), 3);
    EXPECT_EQ(Read(), "errno " + std::to_string(EINTR));
    EXPECT_EQ(Read(), "ab");
    EXPECT_EQ(Read(), "c");
    Ask("fault.clear");
}

TEST_F(Node, TheCableGoesOutAndInByHand) {
    const Descriptor host = PlugIn();
    Ask("cable", R"("in": true)");
    EXPECT_FALSE(Has(host, POLLRDHUP)) << "what is in already is not disturbed";
    Ask("cable", R"("in": false)");
    EXPECT_FALSE(CableIsIn());
    EXPECT_EQ(Receive(host, 1) + Receive(Connect(), 1), "") << "pulled out, and turned away";
    EXPECT_FALSE(CableIsIn());
    Ask("cable", R"("flap": {"inMs": 1, "outMs": 600000})");
    EXPECT_TRUE(Eventually([&] { return Ask("state")["cable"]["in"] == false; }));
    Ask("cable", R"("in": true)");
    EXPECT_TRUE(PlugIn());
}

}  // namespace
}  // namespace vexa::unit
