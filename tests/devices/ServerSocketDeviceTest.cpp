// The TCP transport on loopback.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>

#include "devices/GServerSocketDevice.h"
#include "support/Loopback.h"
#include "support/Output.h"
#include "support/System.h"
#include "support/TransportEnds.h"

namespace vexa {
namespace {

using namespace test;

// A client that can leave with a reset instead of an orderly end.
struct Client : Peer {
    explicit Client(const GPortRef& port) : Peer(ConnectLoopback(port.port)) {}
    void ResetOnClose() const {
        const linger now{1, 0};
        setsockopt(Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
};

// What the server's end of `client` has for an option, such as SO_KEEPALIVE; -1 when there is none.
int ServerOption(const Client& client, int level, int name) {
    const auto portOf = [](int (*ask)(int, sockaddr*, socklen_t*), int descriptor) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        return ask(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0
                   ? address.sin_port
                   : 0;
    };
    for (int descriptor = 3; descriptor < 256; ++descriptor) {
        int value = -1;
        socklen_t length = sizeof value;
        if (portOf(getpeername, descriptor) == portOf(getsockname, client.Get()) &&
            getsockopt(descriptor, level, name, &value, &length) == 0) {
            return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0 ? value : -1;
        }
    }
    return -1;
}

// Waits until every other thread of the process is blocked in a call.
void AwaitBlockedThreads() {
    const auto isBlocked = [](const std::filesystem::path& task) {
        std::string id;
        std::string name;
        std::string state;
        std::ifstream(task / "stat") >> id >> name >> state;
        return state == "S" || id == std::to_string(getpid());
    };
    for (;; OSSleep(1)) {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        if (std::all_of(begin(tasks), end(tasks), isBlocked)) return;
    }
}

// A line that the transport traces.
std::string Line(const std::string& text) {
    return "GServerSocketDevice_Linux(118) : " + text + "\n";
}

class ServerSocketDevice : public testing::Test {
  protected:
    ServerSocketDevice() {
        port.SetPort(FreePort());
        device = MakeDevice();
    }

    std::unique_ptr<GServerSocketDevice> MakeDevice() {
        auto made = std::make_unique<GServerSocketDevice>(&port);
        made->SetReadCallback(ReceivedBytes::Callback, &received);
        made->SetConnectionReport([this](bool connected) { ++(connected ? came : went); });
        return made;
    }
    static void Await(const std::atomic<int>& value, int wanted) {
        while (value < wanted) OSSleep(1);
    }

    const std::string accepted = Line("\n accept() succeeded. Opening client socket with id N \n");
    const std::string closed = Line("Closed client socket with id N \n");
    const std::string openFailed =
        "GServerSocketDevice_Linux(376) : Error opening device with id tcp\n";

    GPortRef port{GPortRef::kHostPort, "", "", "tcp", 0, 0};
    ReceivedBytes received;
    std::atomic<int> came{0};
    std::atomic<int> went{0};
    std::unique_ptr<GServerSocketDevice> device;
};

TEST_F(ServerSocketDevice, EnumeratesItsOnePort) {
    EXPECT_TRUE(GServerSocketDevice::EnumeratePorts(2).empty());
    const auto ports = GServerSocketDevice::EnumeratePorts(GPortRef::kHostPort);
    ASSERT_EQ(ports.size(), 1U);
    EXPECT_EQ(ports[0].portType, 5);
    EXPECT_EQ(ports[0].addressText, "IPAddr=0.0.0.0;Port=38144");
    EXPECT_EQ(ports[0].displayName, "IPAddr=0.0.0.0;Port=0") << "filled by the address alone";
}

TEST_F(ServerSocketDevice, ServesOneClientAfterTheOther) {
    const std::string text = Traced([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        auto first = std::make_unique<Client>(port);
        Await(came, 1);
        auto second = std::make_unique<Client>(port);
        second->Send({9});
        first->Send(Hex("00 03 11 13 ff"));
        EXPECT_EQ(received.Await(5), Hex("00 03 11 13 ff")) << "the second one waits";
        EXPECT_EQ(ServerOption(*first, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(ServerOption(*first, IPPROTO_TCP, TCP_KEEPIDLE), 15);

        int count = 3;
        EXPECT_EQ(device->Write("abc", &count), 0);
        EXPECT_EQ(count, 3);
        EXPECT_EQ(ToHex(first->Receive(3)), "61 62 63");
        EXPECT_EQ(came, 1);
        first.reset();
        EXPECT_EQ(received.Await(6).back(), 9);
        EXPECT_EQ(went, 1);
        EXPECT_EQ(came, 2);
        second->ResetOnClose();
        second.reset();
        Await(went, 2);
        EXPECT_EQ(device->Write("abc", &count), -1);
        EXPECT_EQ(count, 3) << "untouched without a client";
    });
    EXPECT_EQ(text, accepted + Line("\n Remote host closed socket.\n") + closed + accepted +
                        Line("\n recv() failed. errno = 104 \n") + closed);
}

TEST_F(ServerSocketDevice, NeverAcceptsAgainAfterAFailedAccept) {
    counted.accepts = 0;
    failing.accept = 1;
    const std::size_t threads = ThreadCount();
    const std::string text = Traced([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        const Client waiting(port);
        while (counted.accepts == 0 || (ThreadCount() > threads && came == 0)) OSSleep(1);
        EXPECT_EQ(device->Close(), 0);
    });
    EXPECT_EQ(text, Line("\n accept() failed.\n"));
    EXPECT_EQ(counted.accepts, 1);
}

TEST_F(ServerSocketDevice, EndsInAcceptAndInRecv) {
    for (const bool connected : {false, true}) {
        device = MakeDevice();
        const std::string text = Traced([&] {
            ASSERT_EQ(device->Open(nullptr), 0);
            std::unique_ptr<Client> client;
            if (connected) client = std::make_unique<Client>(port);
            Await(came, connected ? 1 : 0);
            AwaitBlockedThreads();
            EXPECT_EQ(device->Close(), 0);
        });
        EXPECT_EQ(text, connected ? accepted + Line("\n recv() failed. errno = 4 \n") + closed
                                  : Line("\n accept() failed.\n"));
    }
}

TEST_F(ServerSocketDevice, FailsOnAPortInUseAndWithoutAContext) {
    counted.socketOptions = 0;
    failing.listen = 1;
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device->Open(nullptr), -1); }),
              Line("\n listen() failed.\n") + openFailed);
    const auto second = MakeDevice();
    EXPECT_EQ(Traced([&] {
                  ASSERT_EQ(device->Open(nullptr), 0);
                  EXPECT_EQ(second->Open(nullptr), -1);
                  second->SetReadCallback(ReceivedBytes::Callback, nullptr);
                  EXPECT_EQ(second->Open(nullptr), -1);
              }),
              Line("\n bind() failed.\n") + openFailed + openFailed);
    EXPECT_EQ(counted.socketOptions, 0) << "an address in use is not used again";
    int count = 3;
    EXPECT_EQ(device->Write("abc", &count), -1) << "nobody is connected";
    EXPECT_EQ(count, 3);
}

// The reader is still busy with what the client sent, so only the write can notice that it left.
TEST_F(ServerSocketDevice, FailsToWriteToAClientThatHasGone) {
    std::atomic<int> busy{0};
    device->SetReadCallback(
        [](const unsigned char*, int, void* context) {
            auto& state = *static_cast<std::atomic<int>*>(context);
            for (state = 1; state == 1;) OSSleep(1);
            return 0;
        },
        &busy);
    ASSERT_EQ(device->Open(nullptr), 0);
    {
        const Client client(port);
        client.Send({1});
        Await(busy, 1);
        client.ResetOnClose();
    }
    // The system may still accept some; without an error it would for ever.
    for (int count = 1; device->Write("a", &count) == 0;) count = 1;
    busy = 2;
    Await(went, 1);
    EXPECT_EQ(device->Close(), 0);
}

TEST_F(ServerSocketDevice, ClosesAlthoughAClientReadsNothing) {
    device->bufferedOutput = true;
    ASSERT_EQ(device->Open(nullptr), 0);
    const Client idle(port);
    Await(came, 1);
    // Until the socket's buffers are full and the writer blocks, so that the queue fills up.
    const Bytes block(5000, 7);
    while (device->outputBuffer->GetBytesAvailable() < 45000) {
        int count = 5000;
        device->QueueWrite(block.data(), &count);
    }
    EXPECT_EQ(device->Close(), 0);
}

}  // namespace
}  // namespace vexa
