// The client against a service that answers as each test tells it to.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "host/FakeService.h"
#include "testkit/Wait.h"
#include "vexahost/Client.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

namespace vexahost {
namespace {

using testing::ElementsAre;

constexpr Milliseconds kLong{20000};  // for what must come
constexpr Milliseconds kBrief{50};    // for what must not

// What went wrong, or "done".
template <typename T>
std::string Outcome(const Expected<T>& result) {
    static const char* const kinds[] = {
        "invalid argument", "cannot connect", "refused ", "timeout",  "link lost",
        "violation",        "busy",           "not open", "cancelled"};
    if (result) return "done";
    const Error& error = result.error();
    std::string kind = kinds[static_cast<int>(error.kind)];
    if (error.kind != ErrorKind::kRefused) return kind;
    return kind + std::to_string(error.command) + "/" + std::to_string(error.code);
}

template <typename T>
T ValueOf(const Expected<T>& result) {
    EXPECT_EQ(Outcome(result), "done");
    return result ? *result : T{};
}

std::string SocketPath() { return testing::TempDir() + "vexa-" + std::to_string(getpid()); }

std::unique_ptr<Transport> Connection() {
    return std::move(*SocketTransport::ConnectUnit(SocketPath()));
}

template <typename Call>
std::future<std::string> Start(Call call) {
    return std::async(std::launch::async, [call] { return Outcome(call()); });
}

TEST(Client, HoldsAWholeConversation) {
    std::vector<Bytes> requests;
    int queries = 0;
    int takeOvers = 0;
    const auto answer = [&](FakeService& self, const Bytes& packet) {
        requests.push_back(packet);
        const std::uint8_t command = CommandOf(packet);
        if (requests.size() == 1) {  // left over from an earlier host
            self.SendFramed({0, 0, 0, 0, 0x60, 200, 1, 2, 3});
        } else if (command == 0x73) {
            self.SendFramed(Executed(packet, ++queries == 1 ? 1 : 0));
        } else if ((command == 0x71 && packet[13] == 99) ||
                   (command == 0x70 && packet[18] == 'B')) {
            self.SendFramed(Reply(1, 0x9C, 0x70, packet[10], 54));
        } else if (command == 0x70) {  // a device may be faster than the acknowledgement
            self.SendFramed(Tunnel(0x1001, {1, 2}, 0) + Executed(packet));
        } else if (command == 0x74 && ++takeOvers == 1) {
            // Not answers: another request's, another command's, two with a wrong checksum, one of
            // a stranger, and one that is no reply.
            const auto other = static_cast<std::uint8_t>(packet[10] + 100);
            Bytes wrong = Executed(packet);
            ++wrong[3];
            Bytes wrongInside = Executed(packet);
            ++wrongInside[11];
            wrong = wrong + Sealed(wrongInside);
            self.SendFramed(Reply(1, 0x98, 0x74, other, 0) + Reply(1, 0x9C, 0x70, packet[10], 54) +
                            wrong + Reply(2, 0x98, 0x74, packet[10], 0) +
                            Sealed({0x98, 7, 0, 0, 0x74, packet[10], 0}));
        } else if (command == 0x74 && takeOvers == 2) {  // no controller is left: under id 0
            self.SendFramed(Reply(0, 0x9C, 0x74, packet[10], 50));
        } else if (command == 5) {
            const Bytes wrong = {0xA0, 6, 1, 0x55, 1, 2};
            self.SendFramed(Sealed({0xB8, 7, 0, 0, 5, packet[2], 0}) + wrong +
                            Sealed({0xA0, 5, 2, 0, 1}));
        } else if (command == 6) {
            self.SendFramed(Sealed({0x9C, 7, 0, 0, 6, packet[2], 48}));
        } else {
            FakeService::Obey(self, packet);
        }
    };
    {
        FakeService service(answer, SocketPath());
        Client client(Connection());
        const std::uint8_t first = client.NextSequence();
        EXPECT_EQ(ValueOf(client.InitialSync(kLong)), SyncReply(first));
        EXPECT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
        EXPECT_EQ(ValueOf(client.QueryDaqApplication(kLong)), DaqApplication::kHoldsHardware);
        EXPECT_EQ(ValueOf(client.QueryDaqApplication(kLong)), DaqApplication::kHoldsNothing);
        EXPECT_EQ(Outcome(client.SendMultiplexerCommand(6, {}, kLong)), "refused 6/48");
        EXPECT_EQ(Outcome(client.QueryDaqApplication(Milliseconds::max())), "done");
        EXPECT_EQ(Outcome(client.TakeDaqOver(kBrief)), "timeout");
        EXPECT_EQ(Outcome(client.QueryDaqApplication(kBrief)), "timeout") << "the unit is busy";
        EXPECT_EQ(Outcome(client.InitialSync(kLong)), "done") << "which ends the wait for it";
        EXPECT_EQ(Outcome(client.TakeDaqOver(kLong)), "refused 116/50");
        EXPECT_EQ(Outcome(client.TakeDaqOver(kLong)), "done");
        EXPECT_EQ(Outcome(client.SendMultiplexerCommand(5, Bytes{9}, kLong)), "done");
        const auto daq = ValueOf(client.ReceiveDaq(kLong));
        EXPECT_THAT(daq.bytes, ElementsAre(0xA0, 6, 1, 0x55, 1, 2));
        EXPECT_FALSE(daq.checksumRight);
        EXPECT_TRUE(ValueOf(client.ReceiveDaq(kLong)).checksumRight);
        EXPECT_EQ(Outcome(client.CloseDevice(99, kLong)), "refused 112/54") << "no such child";
        EXPECT_EQ(Outcome(client.OpenDevice("B", 1, kLong)), "refused 112/54") << "controller's id";
        EXPECT_EQ(Outcome(client.OpenDevice("B", 11, kLong)), "refused 112/54");
        EXPECT_FALSE(client.StatisticsOf(11));
        EXPECT_EQ(Outcome(client.OpenDevice("Mic", 0x1001, kLong)), "done");
        EXPECT_THAT(ValueOf(client.Receive(0x1001, kLong)).bytes, ElementsAre(1, 2));
        EXPECT_EQ(Outcome(client.OpenDevice("B", 0x1001, kLong)), "refused 112/54") << "in use";
        EXPECT_TRUE(client.StatisticsOf(0x1001)) << "and stays open";
        EXPECT_EQ(Outcome(client.CloseDevice(0x1001, kLong)), "done");
        EXPECT_EQ(Outcome(client.Receive(0x1001, kLong)), "not open");
        EXPECT_EQ(Outcome(client.OpenDevice("Mic", 0x1001, kLong)), "done");
        // What the unit would misunderstand is not sent.
        EXPECT_EQ(Outcome(client.Send(10, Bytes(248))), "invalid argument");
        EXPECT_EQ(Outcome(client.Send(10, Bytes{1, 2, 3, 4, 0x72})), "invalid argument");
        EXPECT_EQ(Outcome(client.OpenDevice(std::string(220, 'x'), 10)), "invalid argument");
        EXPECT_EQ(Outcome(client.Send(10, Bytes(247))), "not open");
        EXPECT_EQ(Outcome(client.Send(0x1001, Bytes(247))), "done");
        EXPECT_EQ(Outcome(client.OpenDevice("Controller", 10)), "invalid argument");
        EXPECT_EQ(Outcome(client.CloseController(kLong)), "done");
        EXPECT_FALSE(client.StatisticsOf(0x1001)) << "it is closed with the controller";
        const auto counts = client.Statistics();
        EXPECT_EQ(counts.strayReplies, 3U);
        EXPECT_EQ(counts.strayPackets, 2U);
        EXPECT_EQ(counts.wrongChecksums, 1U);
        EXPECT_EQ(counts.daqPackets, 2U);
        EXPECT_EQ(counts.daqBytes, 11U);
        EXPECT_EQ(counts.daqWrongChecksums, 1U);
        EXPECT_EQ(Outcome(client.Reconnect(kLong)), "invalid argument") << "it cannot connect";
    }
    ASSERT_EQ(requests.size(), 21U);
    EXPECT_EQ(requests[1], requests[0]) << "the sync is asked for again";
    for (std::size_t i = 2; i < requests.size(); ++i) {
        EXPECT_NE(requests[i][2], requests[i - 1][2]) << "each request has its own number";
    }
}

TEST(Client, KeepsChildrensBlocksApartAndCountsWhatIsMissing) {
    FakeService service(FakeService::Obey, SocketPath());
    Client client(Connection(), {.queueCapacity = 3});
    ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    ASSERT_EQ(Outcome(client.OpenDevice("B", 11, kLong)), "done");
    Bytes stream;
    for (int i = 0; i < 515; ++i) {  // the numbers wrap twice; 255 and 0 are missing once: one gap
        const auto number = static_cast<std::uint8_t>(i);
        if (i != 255 && i != 256) stream = stream + Tunnel(10, {number, number}, number);
        if (i < 5) stream = stream + Sealed({0xA0, 5, number, 0, number});
    }
    service.SendFramed(stream + Tunnel(11, {7}, 0) + Tunnel(12, {8}, 0));
    ASSERT_EQ(Outcome(client.InitialSync(kLong)), "done") << "after all that was sent before";
    for (const int kept : {0, 1, 2}) {
        EXPECT_THAT(ValueOf(client.Receive(10, kLong)).bytes, ElementsAre(kept, kept));
    }
    EXPECT_EQ(Outcome(client.Receive(10, kBrief)), "timeout");
    const auto counts = client.StatisticsOf(10).value_or(ChildStatistics{});
    EXPECT_EQ(counts.blocks, 513U);
    EXPECT_EQ(counts.bytes, 1026U);
    EXPECT_EQ(counts.sequenceGaps, 1U);
    EXPECT_EQ(counts.dropped, 510U);
    EXPECT_EQ(client.StatisticsOf(11)->sequenceGaps, 0U);
    EXPECT_EQ(client.Statistics().strayPackets, 1U);
    EXPECT_EQ(client.Statistics().daqDropped, 2U);
    EXPECT_EQ(ValueOf(client.ReceiveDaq(kLong)).sequence, 2);
    ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    EXPECT_FALSE(client.StatisticsOf(11)) << "opening the controller again abandons the children";
}

TEST(Client, FollowsWhatALateAnswerOpened) {
    std::atomic<bool> holds{true};
    const auto answer = [&](FakeService& self, const Bytes& packet) {
        if (!holds || CommandOf(packet) != 0x70) FakeService::Obey(self, packet);
    };
    FakeService service(answer, SocketPath());
    Client client(Connection());
    EXPECT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "not open") << "no controller";
    ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    const std::uint8_t first = client.NextSequence();
    EXPECT_EQ(Outcome(client.OpenDevice("A", 10, kBrief)), "timeout");
    holds = false;
    auto waiting = Start([&] { return client.OpenDevice("B", 11, kLong); });
    service.SendFramed(Reply(1, 0x98, 0x70, first, 0) + Tunnel(10, {7}, 0));
    EXPECT_EQ(waiting.get(), "done");
    const ChildId both[] = {11, 10};
    const auto received = ValueOf(client.ReceiveAny(both, true, kLong));
    EXPECT_EQ(received.child, 10U);
    holds = true;
    EXPECT_EQ(Outcome(client.OpenDevice("C", 12, kBrief)), "timeout");
    EXPECT_EQ(Outcome(client.OpenController(1, false, kLong)), "done") << "ends what is executed";
    holds = false;
    EXPECT_EQ(Outcome(client.OpenDevice("C", 12, kLong)), "done");
    EXPECT_EQ(Outcome(client.CloseDevice(1, kLong)), "done") << "the controller's own id";
    EXPECT_EQ(Outcome(client.Send(12, Bytes{1})), "not open");
}

TEST(Client, FindsItsWayBackAfterACutPacketInEitherDirection) {
    {
        std::atomic<int> syncs{0};
        const auto count = [&](FakeService& self, const Bytes& packet) {
            FakeService::Obey(self, packet);
            if (CommandOf(packet) == 26) ++syncs;
        };
        FakeService service(count, SocketPath());
        Client client(Connection());
        ASSERT_EQ(Outcome(client.InitialSync(kLong)), "done");
        ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
        const int before = syncs;
        service.SendFramed({0x60, 9, 1, 2, 3, 0x60, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        // What the client asks for before its own sync would not be answered.
        EXPECT_TRUE(vexa::testkit::WaitUntil(kLong, [&] { return syncs > before; }));
        EXPECT_EQ(client.Statistics().resynchronisations, 1U);
        EXPECT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
        service.SendBytes(Bytes{0, 0, 0, 0, 'B', 'U', 'S', 'Y'});
        EXPECT_EQ(Outcome(client.Receive(10, kLong)), "busy") << "another host is connected";
    }
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const vexa::testkit::Descriptor unit(pair[1]);
    Client client(std::make_unique<SocketTransport>(pair[0], Framing::kFrameHeaders));
    const Bytes filling(100000, 0x11);
    ASSERT_EQ(Outcome(client.SendRaw(filling, kBrief)), "done");
    while (Outcome(client.SendRaw(filling, kBrief)) == "done") continue;
    Bytes sent(100 * filling.size());
    const auto drain = [&] {
        sent.resize(std::size_t(recv(unit.Get(), sent.data(), sent.size(), MSG_DONTWAIT)));
    };
    drain();
    EXPECT_NE(sent.size() % filling.size(), 0U);
    ASSERT_EQ(Outcome(client.SendRaw(Bytes{1, 2, 3}, kLong)), "done");
    drain();
    ASSERT_EQ(sent.size(), 28U);
    EXPECT_TRUE(vexa::IsInitialSync(Part(sent, 0, 25))) << "the unit drops the torn packet";
}

TEST(SocketTransport, TakesEveryFormOfAnAddressAndNoOther) {
    for (const char* wrong :
         {"", "host:", "host:0", "host:99999", "host:1x", ":38144", "[::1", "[::1]x", "[::1]:-1"}) {
        EXPECT_EQ(Outcome(SocketTransport::ConnectTcp(wrong)), "invalid argument") << wrong;
    }
    const vexa::testkit::Descriptor listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listener.Get(), generic, size), 0);
    ASSERT_EQ(getsockname(listener.Get(), generic, &size), 0);
    const std::string where = "[::1]:" + std::to_string(ntohs(address.sin6_port));
    EXPECT_EQ(Outcome(SocketTransport::ConnectTcp(where)), "cannot connect") << "nobody listens";
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    EXPECT_EQ(Outcome(SocketTransport::ConnectTcp(where)), "done");
}

TEST(Client, ServesSeveralThreadsReconnectsAndClosesUnderThem) {
    std::atomic<bool> silent{false};
    const auto answer = [&](FakeService& self, const Bytes& packet) {
        if (!silent) FakeService::Obey(self, packet);
    };
    FakeService service(answer, SocketPath());
    int attempts = 0;
    std::function<void()> beforeAttempt = [] {};
    auto connected = Client::Connect([&](const ConnectLimits& limits) {
        beforeAttempt();
        // Every other attempt finds nobody: the first connection is the one of attempt 0.
        const std::string path = SocketPath() + (attempts++ % 2 == 0 ? "" : "-none");
        return SocketTransport::ConnectUnit(path, limits);
    });
    ASSERT_EQ(Outcome(connected), "done");
    Client& client = **connected;
    std::vector<std::future<std::string>> threads(4);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
        ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
        auto waiting = Start([&] { return client.Receive(10, kLong); });
        for (auto& thread : threads) {
            thread = Start([&] {
                for (int i = 0; i < 50; ++i) EXPECT_TRUE(client.QueryDaqApplication(kLong));
                return client.InitialSync(kLong);
            });
        }
        for (auto& thread : threads) EXPECT_EQ(thread.get(), "done");
        service.SendFramed(Sealed({0xA0, 5, 1, 0, 1}));
        ASSERT_EQ(Outcome(client.InitialSync(kLong)), "done");
        if (round == 1) service.HangUp();
        EXPECT_EQ(Outcome(client.Reconnect(kLong)), "done");
        EXPECT_EQ(Outcome(client.ReceiveDaq(kBrief)), "timeout") << "packets of the DAQ are gone";
        EXPECT_THAT(waiting.get(), testing::AnyOf("link lost", "not open"));
        EXPECT_EQ(Outcome(client.Receive(10, kBrief)), "not open") << "children are gone";
        EXPECT_FALSE(client.LinkError());
    }
    ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    silent = true;
    EXPECT_EQ(Outcome(client.InitialSync(kBrief)), "timeout");
    threads[0] = Start([&] { return client.QueryDaqApplication(kLong); });
    threads[1] = Start([&] { return client.TakeDaqOver(kLong); });  // waits for its turn
    threads[2] = Start([&] { return client.Receive(10, kLong); });
    threads[3] = Start([&] { return client.ReceiveDaq(kLong); });
    client.Close();
    for (auto& thread : threads) EXPECT_EQ(thread.get(), "link lost");
    EXPECT_EQ(Outcome(client.Reconnect(kBrief)), "cannot connect") << "at the last attempt";
    EXPECT_EQ(Outcome(client.SendRaw(Bytes{1})), "link lost");
    beforeAttempt = [&] { client.Close(); };
    EXPECT_EQ(Outcome(client.Reconnect(kLong)), "link lost") << "Close ends a Reconnect";
}

// A connection that counts the writes which begin during another one.
class OneWriterTransport final : public Transport {
  public:
    OneWriterTransport(std::unique_ptr<Transport> inner_, std::atomic<int>& overlaps_)
        : inner(std::move(inner_)), overlaps(overlaps_) {}
    Expected<std::size_t> Read(std::span<std::uint8_t> buffer, Milliseconds timeout) override {
        return inner->Read(buffer, timeout);
    }
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override {
        overlaps += writers++;
        std::this_thread::yield();
        auto sent = inner->Write(bytes, deadline);
        --writers;
        return sent;
    }
    [[nodiscard]] Framing UnitFraming() const override { return inner->UnitFraming(); }
    void Close() override { inner->Close(); }

  private:
    const std::unique_ptr<Transport> inner;
    std::atomic<int>& overlaps;
    std::atomic<int> writers{0};
};

// The client as a program with ten threads uses it: each calls everything, in an order of its own,
// while the link is cut from either side. For at least as many seconds as VEXA_HAMMER_SECONDS says.
TEST(Client, StaysWholeUnderTenThreads) {
    std::atomic<int> damaged{0};
    const auto answer = [&](FakeService& self, const Bytes& packet) {
        if (!vexa::HasRightChecksum(packet)) ++damaged;
        if (packet[0] == 0x60 && packet[4] >= 9) return self.SendFramed(packet);  // an echo
        FakeService::Obey(self, packet);
        if (CommandOf(packet) == 0x73) self.SendFramed(Sealed({0xA0, 5, packet[2], 0, 5}));
    };
    FakeService service(answer, SocketPath());
    std::atomic<int> overlaps{0};
    auto connected = Client::Connect([&](const ConnectLimits& limits) {
        auto made = SocketTransport::ConnectUnit(SocketPath(), limits);
        if (made) *made = std::make_unique<OneWriterTransport>(std::move(*made), overlaps);
        return made;
    });
    ASSERT_EQ(Outcome(connected), "done");
    Client& client = **connected;
    std::atomic<unsigned> cuts{0};
    const std::function<std::string(ChildId)> calls[] = {
        [&](auto) {
            const auto number = client.Connection();
            return client.LinkError() ? Outcome(client.Reconnect(kLong, number)) : "done";
        },
        [&](auto) { return Outcome(client.OpenController(1, false, kLong)); },
        [&](ChildId id) { return Outcome(client.OpenDevice("A", id, kLong)); },
        [&](ChildId id) { return Outcome(client.Send(id, Bytes(id, 0x5A), kLong)); },
        [&](ChildId id) {
            const auto echo = client.Receive(id, kBrief);
            damaged += echo && echo->bytes != Bytes(id, 0x5A);
            return Outcome(echo);
        },
        [&](auto) { return Outcome(client.QueryDaqApplication(kLong)); },
        [&](auto) { return Outcome(client.ReceiveDaq(kBrief)); },
        [&](auto) { return Outcome(client.InitialSync(kLong)); },
        [&](ChildId id) { return Outcome(client.CloseDevice(id, kLong)); },
        [&](auto) { return ++cuts % 50 == 0 ? (client.Close(), "done") : "done"; },
        [&](auto) { return ++cuts % 50 == 1 ? (service.HangUp(), "done") : "done"; },
    };
    constexpr unsigned kCalls = std::size(calls);  // a prime: every stride reaches all of them
    std::array<std::atomic<int>, kCalls> succeeded{};
    const char* const seconds = std::getenv("VEXA_HAMMER_SECONDS");
    const auto end = DeadlineAfter(std::chrono::seconds(seconds ? std::atoi(seconds) : 1));
    const auto isOver = [&] {  // also, each call has succeeded, and the link was cut
        return std::chrono::steady_clock::now() >= end && client.Connection() > 3 &&
               std::ranges::all_of(succeeded, [](const auto& count) { return count > 0; });
    };
    const auto hammer = [&](unsigned stride) {
        for (unsigned step = 0; !isOver(); ++step) {
            const unsigned which = step * stride % kCalls;
            const std::string outcome = calls[which](10 + step % 4);
            EXPECT_THAT(outcome, testing::AnyOf("done", "not open", "link lost", "timeout"));
            if (outcome == "done") ++succeeded[which];
        }
    };
    std::vector<std::thread> threads;
    for (unsigned stride = 1; stride <= 10; ++stride) threads.emplace_back(hammer, stride);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(damaged + overlaps, 0);
    EXPECT_EQ(client.Statistics().wrongChecksums + client.Statistics().resynchronisations, 0U);
    EXPECT_EQ(Outcome(client.Reconnect(kLong)), "done");
    for (const int which : {1, 2, 3}) EXPECT_EQ(calls[which](9), "done");
    EXPECT_EQ(ValueOf(client.Receive(9, kLong)).bytes, Bytes(9, 0x5A)) << "it is whole";
}

TEST(SerialTransport, PassesEveryByteAndLeavesTheLineAsItWas) {
    const vexa::testkit::Descriptor unit(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(grantpt(unit.Get()) == 0 && unlockpt(unit.Get()) == 0);
    const std::string path = ptsname(unit.Get());
    const vexa::testkit::Descriptor line(open(path.c_str(), O_RDWR | O_NOCTTY));
    const auto settings = [&] {
        termios now{};
        EXPECT_EQ(tcgetattr(line.Get(), &now), 0);
        return now;
    };
    const termios before = settings();
    EXPECT_EQ(Outcome(SerialTransport::Open(path, {12345})), "invalid argument");
    auto opened = SerialTransport::Open(path, {9600, true});
    ASSERT_EQ(Outcome(opened), "done");
    const termios during = settings();
    EXPECT_EQ(cfgetospeed(&during), speed_t{B9600});
    EXPECT_NE(during.c_cflag & CRTSCTS, 0U);
    const Bytes control = Hex("00 03 04 0a 0d 11 13 1a 7f ff");
    Bytes bytes(control.size());
    EXPECT_EQ(Outcome((*opened)->WriteAll(control, DeadlineAfter(kLong))), "done");
    ASSERT_EQ(read(unit.Get(), bytes.data(), bytes.size()), 10);
    EXPECT_EQ(bytes, control);
    ASSERT_EQ(write(unit.Get(), control.data(), control.size()), 10);
    bytes.assign(10, 0);
    ASSERT_EQ(ValueOf((*opened)->Read(bytes, kLong)), 10U);
    EXPECT_EQ(bytes, control);
    auto waiting = Start([&] { return (*opened)->Read(bytes, kLong); });
    (*opened)->Close();
    EXPECT_EQ(waiting.get(), "link lost");
    EXPECT_EQ(settings().c_lflag, before.c_lflag);
    EXPECT_EQ(settings().c_cflag, before.c_cflag);
}

}  // namespace
}  // namespace vexahost
