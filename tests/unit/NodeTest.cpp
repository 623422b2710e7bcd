// The node "/dev/zt-usb" through the system calls of this process, with a host at the other end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
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

[[nodiscard]] bool IsReadable(const Descriptor& host) {
    pollfd entry{host.Get(), POLLIN, 0};
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

    // A host that is plugged in.
    [[nodiscard]] Descriptor PlugIn() const {
        Descriptor host = ConnectHost(UnitFolderUnderTest());
        EXPECT_TRUE(host);
        EXPECT_TRUE(Eventually([&] { return CableIsIn(); }));
        return host;
    }

    [[nodiscard]] std::string Read() const {
        std::array<char, 3000> bytes{};
        const auto got = ::read(node.Get(), bytes.data(), bytes.size());
        return got < 0 ? "errno " + std::to_string(errno)
                       : std::string(bytes.data(), static_cast<std::size_t>(got));
    }

    const Descriptor node{::open(ZT_USB_NODE, O_RDWR | O_EXCL)};
};

TEST_F(Node, TheCableIsInWhileAHostIsConnected) {
    EXPECT_EQ(::write(node.Get(), "x", 1), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    {
        const Descriptor host = PlugIn();
        EXPECT_EQ(::write(node.Get(), "to the host", 11), 11);
        EXPECT_EQ(Receive(host, 11), "to the host");
        EXPECT_EQ(::send(host.Get(), "last words", 10, 0), 10);
    }
    EXPECT_TRUE(Eventually([&] { return !CableIsIn(); })) << "nobody reads, and yet it is noticed";
    EXPECT_EQ(Read(), "last words") << "what a host sent before it left can still be read";
}

TEST_F(Node, OneHostAtATime) {
    Descriptor first = PlugIn();
    const Descriptor second = ConnectHost(UnitFolderUnderTest());
    EXPECT_EQ(Receive(second, 1), "") << "the second one is hung up on";
    EXPECT_EQ(::write(node.Get(), "still", 5), 5);
    EXPECT_EQ(Receive(first, 5), "still");

    first = Descriptor();
    const Descriptor third = ConnectHost(UnitFolderUnderTest());
    ASSERT_EQ(::send(third.Get(), "new", 3, 0), 3);
    EXPECT_EQ(Read(), "new") << "what takes the place of one that has left is served at once";
}

TEST_F(Node, ABlockedReadOutlivesTheCableAndEndsWithASignal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);

    Collected<std::string> reads;
    std::thread reader([&] {
        for (std::string got; got != "errno " + std::to_string(EINTR); reads.Add(got)) got = Read();
    });
    for (const char* text : {"one", "two"}) {
        const Descriptor host = ConnectHost(UnitFolderUnderTest());
        ASSERT_EQ(::send(host.Get(), text, 3, 0), 3);
        (void)reads.Await(text == std::string("one") ? 1 : 2);
    }
    // Sent again and again: it may come before the call that it is to interrupt.
    EXPECT_TRUE(Eventually([&] {
        if (reads.Await(2).size() == 3) return true;
        ::pthread_kill(reader.native_handle(), SIGUSR1);
        return false;
    }));
    reader.join();
    EXPECT_EQ(reads.Await(3),
              (std::vector<std::string>{"one", "two", "errno " + std::to_string(EINTR)}));
}

TEST_F(Node, AWriteWaitsForASlowHostButFailsWhenItLeaves) {
    Descriptor host = PlugIn();
    const std::string sent(4000000, 'w');
    std::thread writer([&] {
        EXPECT_EQ(::write(node.Get(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
        EXPECT_EQ(::write(node.Get(), sent.data(), sent.size()), -1);
        EXPECT_EQ(errno, ESHUTDOWN);
    });
    EXPECT_TRUE(Eventually([&] { return IsReadable(host); }));
    // A reader that is in the way of nobody: both directions at once.
    EXPECT_EQ(::send(host.Get(), "meanwhile", 9, 0), 9);
    EXPECT_EQ(Read(), "meanwhile");
    EXPECT_EQ(Receive(host, sent.size()), sent);
    EXPECT_TRUE(Eventually([&] { return IsReadable(host); })) << "the second write is under way";
    host = Descriptor();
    writer.join();
}

TEST_F(Node, OtherFilesAreLeftAlone) {
    const std::string path = UnitFolderUnderTest() + "/file";
    const Descriptor made(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    struct stat status {};
    ASSERT_EQ(::fstat(made.Get(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << "the mode reached the file that was made";
    EXPECT_EQ(::write(made.Get(), "text", 4), 4);

    // A descriptor number that was the node's and has become a file's.
    const int opened = ::open(ZT_USB_NODE, O_RDWR);
    ASSERT_EQ(::close(opened), 0);
    const Descriptor file(::open(path.c_str(), O_RDONLY));
    ASSERT_EQ(file.Get(), opened);
    std::array<char, 5> bytes{};
    EXPECT_EQ(::read(file.Get(), bytes.data(), 4), 4);
    EXPECT_STREQ(bytes.data(), "text");
}

TEST_F(Node, FaultsSpoilItsSystemCalls) {
    Ask("fault.set", R"("call": "node.open", "action": "fail", "errno": "ENODEV", "count": 1)");
    EXPECT_LT(::open(ZT_USB_NODE, O_RDWR), 0);
    EXPECT_EQ(errno, ENODEV);
    const Descriptor host = PlugIn();
    int isIn = 0;
    Ask("fault.set", R"("call": "node.ioctl", "action": "fail", "count": 1)");
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

TEST_F(Node, TheCableGoesOutAndInByHandAndByItself) {
    Descriptor host = PlugIn();
    Ask("cable", R"("in": false)");
    EXPECT_FALSE(CableIsIn());
    EXPECT_EQ(Receive(host, 1), "");
    host = ConnectHost(UnitFolderUnderTest());
    EXPECT_EQ(Receive(host, 1), "") << "turned away";
    EXPECT_FALSE(CableIsIn());

    Ask("cable", R"("flap": {"inMs": 20, "outMs": 1})");
    const auto hosts = [] { return Ask("state")["cable"]["hosts"].get<int>(); };
    for (const int before = hosts(); hosts() < before + 2;) {
        host = ConnectHost(UnitFolderUnderTest());
        EXPECT_EQ(Receive(host, 1), "") << "plugged in for a while, or turned away at once";
    }
    for (int times = 0; times < 2; ++times) {
        Ask("cable", R"("in": true)");
        if (times == 0) host = ConnectHost(UnitFolderUnderTest());
        EXPECT_TRUE(Eventually([&] { return CableIsIn(); }));
        EXPECT_FALSE(IsHungUp(host)) << "what is in already is not disturbed";
    }
}

}  // namespace
}  // namespace vexa::unit
