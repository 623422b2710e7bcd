// The TCP transport on loopback.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>

#include "devices/GServerSocketDevice.h"
#include "support/Loopback.h"
#include "support/Output.h"
#include "support/ReceivedBytes.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

class Client {
  public:
    explicit Client(std::uint16_t port) : descriptor(ConnectLoopback(port)) {
        EXPECT_NE(descriptor, -1);
    }
    ~Client() { close(descriptor); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Send(const Bytes& bytes) const {
        EXPECT_EQ(send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    [[nodiscard]] Bytes Receive(std::size_t count) const {
        Bytes bytes(count);
        const ssize_t got = recv(descriptor, bytes.data(), count, MSG_WAITALL);
        bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return bytes;
    }
    // Leaves with a reset instead of an orderly end.
    void Abort() const {
        const linger now{1, 0};
        setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }

    int descriptor;
};

// Waits until every other thread of the process is blocked in a call.
void AwaitBlockedThreads() {
    const auto blocked = [](const std::filesystem::path& task) {
        if (task.filename() == std::to_string(getpid())) return true;
        std::ifstream stat(task / "stat");
        std::string id;
        std::string name;
        std::string state;
        stat >> id >> name >> state;
        return state == "S";
    };
    for (;; OSSleep(1)) {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        if (std::all_of(begin(tasks), end(tasks), blocked)) return;
    }
}

class ServerSocketDevice : public testing::Test {
  protected:
    ServerSocketDevice() {
        port.SetPort(FreePort());
        device = std::make_unique<GServerSocketDevice>(&port);
        device->SetReadCallback(ReceivedBytes::Callback, &received);
        device->SetConnectionReport([this](bool connected) { ++(connected ? came : went); });
        SetTraceThreshold(1);
    }
    ~ServerSocketDevice() override { SetTraceThreshold(100); }

    // The lines that `code` traces, with N for descriptors.
    static std::string Lines(const std::function<void()>& code) { return Masked(Printed(code)); }
    void AwaitComings(int count) {
        while (came < count) OSSleep(1);
    }
    void AwaitGoings(int count) {
        while (went < count) OSSleep(1);
    }

    static constexpr char kAccepted[] =
        "GServerSocketDevice_Linux(118) : \n accept() succeeded. Opening client socket with id N "
        "\n\n";
    static constexpr char kClosed[] =
        "GServerSocketDevice_Linux(118) : Closed client socket with id N \n\n";
    static constexpr char kRemoteClosed[] =
        "GServerSocketDevice_Linux(118) : \n Remote host closed socket.\n\n";

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
    EXPECT_EQ(ports[0].port, 38144);
    EXPECT_EQ(ports[0].addressText, "IPAddr=0.0.0.0;Port=38144");
    EXPECT_EQ(ports[0].location, "IPAddr=0.0.0.0;Port=0") << "filled when the address was set";
    EXPECT_EQ(ports[0].displayName, "IPAddr=0.0.0.0;Port=0");
}

TEST_F(ServerSocketDevice, ServesOneClientAfterTheOther) {
    const std::string text = Lines([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        auto first = std::make_unique<Client>(port.port);
        AwaitComings(1);
        auto second = std::make_unique<Client>(port.port);
        second->Send({9});
        first->Send(Hex("00 03 11 13 ff"));
        EXPECT_EQ(received.Await(5), Hex("00 03 11 13 ff")) << "the second one waits";

        int count = 3;
        EXPECT_EQ(device->Write("abc", &count), 0);
        EXPECT_EQ(count, 3);
        count = 0;
        EXPECT_EQ(device->Write("", &count), 0);
        EXPECT_EQ(ToHex(first->Receive(3)), "61 62 63");
        EXPECT_EQ(came, 1);
        first.reset();
        EXPECT_EQ(received.Await(6).back(), 9);
        EXPECT_EQ(went, 1);
        EXPECT_EQ(came, 2);
        second->Abort();
        second.reset();
        AwaitGoings(2);
        count = 3;
        EXPECT_EQ(device->Write("abc", &count), -1);
        EXPECT_EQ(count, 3) << "untouched without a client";
    });
    EXPECT_EQ(text, std::string(kAccepted) + kRemoteClosed + kClosed + kAccepted +
                        "GServerSocketDevice_Linux(118) : \n recv() failed. errno = 104 \n\n" +
                        kClosed);
}

TEST_F(ServerSocketDevice, NeverAcceptsAgainAfterAFailedAccept) {
    counted.accepts = 0;
    failing.accept = 1;
    const std::size_t threads = ThreadCount();
    const std::string text = Lines([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        const Client waiting(port.port);
        while (counted.accepts == 0 || (ThreadCount() > threads && came == 0)) OSSleep(1);
        EXPECT_EQ(device->Close(), 0);
    });
    EXPECT_EQ(text, "GServerSocketDevice_Linux(118) : \n accept() failed.\n\n");
    EXPECT_EQ(counted.accepts, 1);
}

TEST_F(ServerSocketDevice, EndsInAcceptAndInRecv) {
    for (const bool connected : {false, true}) {
        device = std::make_unique<GServerSocketDevice>(&port);
        device->SetReadCallback(ReceivedBytes::Callback, &received);
        device->SetConnectionReport([this](bool here) { ++(here ? came : went); });
        const std::string text = Lines([&] {
            ASSERT_EQ(device->Open(nullptr), 0);
            std::unique_ptr<Client> client;
            if (connected) client = std::make_unique<Client>(port.port);
            AwaitComings(connected ? 1 : 0);
            AwaitBlockedThreads();
            EXPECT_EQ(device->Close(), 0);
        });
        const std::string module = "GServerSocketDevice_Linux(118) : ";
        EXPECT_EQ(text, connected
                            ? kAccepted + module + "\n recv() failed. errno = 4 \n\n" + kClosed
                            : module + "\n accept() failed.\n\n");
    }
}

TEST_F(ServerSocketDevice, FailsOnAPortInUseAndWithoutAContext) {
    const std::string line = "GServerSocketDevice_Linux(376) : Error opening device with id tcp\n";
    counted.socketOptions = 0;
    failing.listen = 1;
    EXPECT_EQ(Lines([&] { EXPECT_EQ(device->Open(nullptr), -1); }),
              "GServerSocketDevice_Linux(118) : \n listen() failed.\n\n" + line);
    GPortRef used = GPortRef(GPortRef::kHostPort, "", "", "tcp", 0, 0);
    used.SetPort(port.port);
    GServerSocketDevice second(&used);
    second.SetReadCallback(ReceivedBytes::Callback, &received);
    EXPECT_EQ(Lines([&] {
                  ASSERT_EQ(device->Open(nullptr), 0);
                  EXPECT_EQ(second.Open(nullptr), -1);
              }),
              "GServerSocketDevice_Linux(118) : \n bind() failed.\n\n" + line);
    second.SetReadCallback(nullptr, nullptr);
    EXPECT_EQ(Lines([&] { EXPECT_EQ(second.Open(nullptr), -1); }), line);
    EXPECT_EQ(counted.socketOptions, 0) << "an address in use is not used again";
    int count = 3;
    EXPECT_EQ(device->Write("abc", &count), -1) << "nobody is connected";
    EXPECT_EQ(count, 3);
    Lines([&] { device->Close(); });
}

TEST_F(ServerSocketDevice, ListensButNeverAcceptsWhenOpenedAgain) {
    counted.accepts = 0;
    Lines([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        while (counted.accepts == 0) OSSleep(1);
        ASSERT_EQ(device->Close(), 0);
        const std::size_t threads = ThreadCount();
        ASSERT_EQ(device->Open(nullptr), 0);
        const Client client(port.port);
        client.Send({1});
        while (ThreadCount() > threads && came == 0) OSSleep(1);
        EXPECT_EQ(device->Close(), 0);
    });
    EXPECT_EQ(came, 0);
    EXPECT_TRUE(received.Await(0).empty());
}

// The reader is still busy with what the client sent, so only the write can notice that it left.
TEST_F(ServerSocketDevice, FailsToWriteToAClientThatHasGone) {
    static std::atomic<int> busy;
    busy = 0;
    device->SetReadCallback(
        [](const unsigned char*, int, void*) {
            for (busy = 1; busy == 1;) OSSleep(1);
            return 0;
        },
        &received);
    int result = 0;
    Lines([&] {
        ASSERT_EQ(device->Open(nullptr), 0);
        {
            const Client client(port.port);
            client.Send({1});
            while (busy == 0) OSSleep(1);
            client.Abort();
        }
        // The first write may still be accepted by the system.
        int count = 1;
        device->Write("a", &count);
        count = 1;
        result = device->Write("b", &count);
        busy = 2;
        AwaitGoings(1);
        EXPECT_EQ(device->Close(), 0);
    });
    EXPECT_EQ(result, -1);
}

// Neither a client that vanishes nor one that takes nothing may end or hang the process.
TEST_F(ServerSocketDevice, SurvivesClientsThatVanishOrTakeNothing) {
    Lines([&] {
        device->bufferedOutput = true;
        ASSERT_EQ(device->Open(nullptr), 0);
        const Bytes block(5000, 7);
        for (int round = 1; round <= 5; ++round) {
            {
                const Client client(port.port);
                AwaitComings(round);
                int count = 5000;
                EXPECT_EQ(device->QueueWrite(block.data(), &count), 0);
                EXPECT_EQ(client.Receive(10).size(), 10U);
                client.Abort();
            }
            int count = 5000;
            device->QueueWrite(block.data(), &count);
            AwaitGoings(round);
        }
        const Client idle(port.port);
        AwaitComings(6);
        // Until its window is full and the writer blocks, so that the buffer fills up.
        for (int queued = 0; queued < 45000; queued = device->outputBuffer->GetBytesAvailable()) {
            int count = 5000;
            device->QueueWrite(block.data(), &count);
        }
        EXPECT_EQ(device->Close(), 0);
    });
}

}  // namespace
}  // namespace vexa
