// The client against a service that answers as each test tells it to.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <numeric>

#include "host/FakeService.h"
#include "vexahost/Client.h"
#include "vexahost/SerialTransport.h"
#include "vexahost/SocketTransport.h"

namespace vexahost {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr Milliseconds kLong{20000};  // for what must come
constexpr Milliseconds kShort{50};    // for what must not

// What went wrong, or "done".
template <typename T>
std::string Outcome(const Expected<T>& result) {
    static const char* const kinds[] = {"invalid argument", "cannot connect", "refused ",
                                        "timeout",          "link lost",      "violation"};
    if (result) return "done";
    const Error& error = result.error();
    const std::string kind = kinds[static_cast<int>(error.kind)];
    if (error.kind != ErrorKind::kRefused) return kind;
    return kind + std::to_string(error.command) + "/" + std::to_string(error.code);
}

template <typename T>
T ValueOf(const Expected<T>& result) {
    EXPECT_EQ(Outcome(result), "done");
    return result ? *result : T{};
}

// A client whose controller is open, with id 1.
struct Link {
    FakeService service;
    Client client;

    explicit Link(FakeService::Handler handler, const ClientOptions& options = {})
        : service(std::move(handler)), client(service.Connect(), options) {
        EXPECT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    }

    // Makes a request that is answered in order: all that was sent before has then come.
    void Catchup() { ASSERT_EQ(Outcome(client.InitialSync(kLong)), "done"); }
};

TEST(Client, HoldsAWholeConversation) {
    std::vector<Bytes> requests;
    int queries = 0;
    FakeService service([&](FakeService& self, const Bytes& packet) {
        requests.push_back(packet);
        if (packet[0] == 0x60 && packet[12] == 0x73) {
            const auto result = static_cast<std::uint8_t>(++queries % 2);
            self.SendFramed(ControllerReply(1, 1, 0x98, 0x73, packet[10], result));
        } else if (packet[0] == 0x60 && packet[12] == 0x70) {
            // A device may be faster than the acknowledgement of its opening.
            self.SendFramed(ChildBlock(0x1001, 0, {1, 2}));
            self.SendFramed(ControllerReply(1, 2, 0x98, 0x70, packet[10], 0));
        } else if (packet[0] == 0x40 && packet[4] == 5) {
            self.SendFramed(Sealed({0xB8, 7, 0, 0, 5, packet[2], 0}));
            self.SendFramed({0xA0, 6, 1, 0x55, 1, 2});  // its checksum is wrong
            self.SendFramed(Sealed({0xA0, 5, 2, 0, 1}));
        } else {
            FakeService::Obey(self, packet);
        }
    });
    std::atomic<std::size_t> sent{0};
    std::atomic<std::size_t> received{0};
    {
        ClientOptions options;
        options.tap = [&](Direction direction, auto) {
            ++(direction == Direction::kToUnit ? sent : received);
        };
        Client client(service.Connect(), options);
        const std::uint8_t first = client.NextSequence();
        EXPECT_EQ(ValueOf(client.InitialSync(kLong)), SyncReply(0, first));
        EXPECT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
        EXPECT_TRUE(ValueOf(client.QueryDaqApplication(kLong)));
        EXPECT_FALSE(ValueOf(client.QueryDaqApplication(kLong)));
        EXPECT_EQ(Outcome(client.TakeDaqOver(kLong)), "done");
        EXPECT_EQ(Outcome(client.SendMultiplexerCommand(5, Bytes{9}, kLong)), "done");
        const auto daq = ValueOf(client.ReceiveDaq(kLong));
        EXPECT_THAT(daq.bytes, ElementsAre(0xA0, 6, 1, 0x55, 1, 2));
        EXPECT_FALSE(daq.checksumRight);
        EXPECT_TRUE(ValueOf(client.ReceiveDaq(kLong)).checksumRight);
        EXPECT_EQ(Outcome(client.OpenDevice("Mic", 0x1001, kLong)), "done");
        EXPECT_THAT(ValueOf(client.Receive(0x1001, kLong)).bytes, ElementsAre(1, 2));
        EXPECT_EQ(Outcome(client.CloseDevice(0x1001, kLong)), "done");
        EXPECT_EQ(Outcome(client.Receive(0x1001, kLong)), "invalid argument");
        EXPECT_EQ(Outcome(client.OpenDevice("Mic", 0x1001, kLong)), "done");
        EXPECT_EQ(Outcome(client.CloseController(kLong)), "done");
        EXPECT_FALSE(client.StatisticsOf(0x1001)) << "it is closed with the controller";
        const auto counts = client.Statistics();
        EXPECT_EQ(counts.strayReplies + counts.strayPackets + counts.wrongChecksums, 0U);
        EXPECT_EQ(counts.packets, received);
        EXPECT_EQ(counts.daqPackets, 2U);
        EXPECT_EQ(counts.daqBytes, 11U);
        EXPECT_EQ(counts.daqWrongChecksums, 1U);
    }
    ASSERT_EQ(requests.size(), 10U);
    EXPECT_EQ(sent, requests.size());
    for (std::size_t i = 1; i < requests.size(); ++i) {
        EXPECT_NE(requests[i][2], requests[i - 1][2]) << "each request has its own number";
    }
}

TEST(Client, TellsTheKindsOfErrorsApart) {
    struct Case {
        const char* outcome;
        FakeService::Handler handler;
        const char* message;
    };
    const auto onTakeOver = [](auto answer) { return FakeService::On(0x74, answer); };
    const Case cases[] = {
        {"refused 116/57", FakeService::Refuse(0x74, 57),
         "take DAQ over was refused: error 57, the DAQ did not come up during the take-over"},
        // With no controller left the unit answers under id 0.
        {"refused 116/50", onTakeOver([](FakeService& self, const Bytes& p) {
             self.SendFramed(ControllerReply(0, 0, 0x9C, 0x74, p[10], 50));
         }),
         "error 50, the session with the DAQ application has failed"},
        // Not answers: another request's, another command's, one with a wrong checksum, one of a
        // stranger, and one that is no reply.
        {"timeout", onTakeOver([](FakeService& self, const Bytes& p) {
             const auto other = static_cast<std::uint8_t>(p[10] + 1);
             self.SendFramed(ControllerReply(1, 0, 0x98, 0x74, other, 0));
             self.SendFramed(ControllerReply(1, 0, 0x9C, 0x70, p[10], 54));
             Bytes wrong = ControllerReply(1, 0, 0x98, 0x74, p[10], 0);
             ++wrong[3];
             self.SendFramed(wrong);
             self.SendFramed(ControllerReply(2, 0, 0x98, 0x74, p[10], 0));
             self.SendFramed(Sealed({0x98, 7, 0, 0, 0x74, p[10], 0}));
         }),
         "no answer in time to: take DAQ over"},
        {"link lost", onTakeOver([](FakeService& self, const Bytes&) { self.HangUp(); }),
         "the link is lost"},
        {"violation", onTakeOver([](FakeService& self, const Bytes&) { self.SendBytes(Bytes(8)); }),
         "bad frame header"},
        {"violation", onTakeOver([](FakeService& self, const Bytes&) {
             self.SendFramed(Bytes{96, 2, 0, 0});
         }),
         "packet with length byte 2: 60 02 00 00"},
    };
    for (const Case& error : cases) {
        Link link(error.handler);
        link.Catchup();
        const bool silent = std::string(error.outcome) == "timeout";
        const auto taken = link.client.TakeDaqOver(silent ? kShort : kLong);
        ASSERT_EQ(Outcome(taken), error.outcome);
        EXPECT_THAT(taken.error().message, HasSubstr(error.message));
        // The link's end stays; a refusal or a time-out leaves the link usable.
        const bool over = taken.error().kind == ErrorKind::kLinkLost ||
                          taken.error().kind == ErrorKind::kProtocolViolation;
        EXPECT_EQ(Outcome(link.client.InitialSync(kLong)), over ? error.outcome : "done");
        EXPECT_EQ(link.client.LinkError().has_value(), over);
        if (!silent) continue;
        const auto counts = link.client.Statistics();
        EXPECT_EQ(counts.strayReplies, 3U);
        EXPECT_EQ(counts.strayPackets, 1U);
        EXPECT_EQ(counts.wrongChecksums, 1U);
    }
}

TEST(Client, RefusalsComeUnderOtherCommandsAndPacketsToo) {
    Link link([](FakeService& self, const Bytes& packet) {
        if (packet[0] == 0x40 && packet[4] != 26) {
            self.SendFramed(Sealed({0x9C, 7, 0, 0, packet[4], packet[2], 48}));
        } else if (packet[0] == 0x60 &&
                   (packet[12] == 0x71 || (packet[12] == 0x70 && packet[18] == 'B'))) {
            self.SendFramed(ControllerReply(1, 1, 0x9C, 0x70, packet[10], 54));
        } else {
            FakeService::Obey(self, packet);
        }
    });
    Client& client = link.client;
    EXPECT_EQ(Outcome(client.CloseDevice(99, kLong)), "refused 112/54") << "no such child";
    EXPECT_EQ(Outcome(client.SendMultiplexerCommand(5, {}, kLong)), "refused 5/48") << "no DAQ";
    EXPECT_EQ(Outcome(client.OpenDevice("B", 1, kLong)), "refused 112/54") << "the controller's id";
    EXPECT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    EXPECT_EQ(Outcome(client.OpenDevice("B", 10, kLong)), "refused 112/54") << "10 is in use";
    EXPECT_TRUE(client.StatisticsOf(10)) << "and stays open";
    EXPECT_EQ(Outcome(client.OpenDevice("B", 11, kLong)), "refused 112/54");
    EXPECT_FALSE(client.StatisticsOf(11));
}

TEST(Client, SynchronisesFromTheMiddleOfAStreamAndAsksAgain) {
    std::atomic<int> requests{0};
    FakeService service([&](FakeService& self, const Bytes& packet) {
        // Left over from an earlier host.
        if (++requests == 1) self.SendFramed({0, 0, 0, 0, 0x60, 200, 1, 2, 3});
        if (requests == 2) self.SendFramed(SyncReply(0, packet[2]));
    });
    Client client(service.Connect());
    EXPECT_EQ(Outcome(client.InitialSync(kLong)), "done");
    EXPECT_EQ(requests, 2);
}

TEST(Client, KeepsChildrensBlocksApartAndCountsWhatIsMissing) {
    ClientOptions options;
    options.queueCapacity = 3;
    Link link(FakeService::Obey, options);
    Client& client = link.client;
    ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    ASSERT_EQ(Outcome(client.OpenDevice("B", 11, kLong)), "done");
    Bytes stream;
    for (int i = 0; i < 258; ++i) {  // the numbers wrap; 100 and 101 are missing: one gap
        if (i == 100 || i == 101) continue;
        const auto number = static_cast<std::uint8_t>(i);
        stream = stream + ChildBlock(10, number, {number});
        if (i < 5) stream = stream + Sealed({0xA0, 5, number, 0, number});
    }
    link.service.SendFramed(stream + ChildBlock(11, 0, {7}) + ChildBlock(12, 0, {8}));
    link.Catchup();
    for (const int kept : {255, 0, 1}) {
        EXPECT_THAT(ValueOf(client.Receive(10, kLong)).bytes, ElementsAre(kept));
    }
    EXPECT_EQ(Outcome(client.Receive(10, kShort)), "timeout");
    const auto counts = client.StatisticsOf(10);
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->blocks, 256U);
    EXPECT_EQ(counts->bytes, 256U);
    EXPECT_EQ(counts->sequenceGaps, 1U);
    EXPECT_EQ(counts->dropped, 253U);
    EXPECT_EQ(client.StatisticsOf(11)->sequenceGaps, 0U);
    EXPECT_EQ(client.Statistics().strayPackets, 1U);
    EXPECT_EQ(client.Statistics().daqDropped, 2U);
    EXPECT_EQ(ValueOf(client.ReceiveDaq(kLong)).sequence, 2);
    // Opening the controller again abandons the children.
    ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
    EXPECT_FALSE(client.StatisticsOf(11));
}

TEST(Client, SendsNothingThatTheUnitWouldMisunderstand) {
    std::atomic<int> tunnelPackets{0};
    Link link([&](FakeService& self, const Bytes& packet) {
        if (packet[0] == 0x60) ++tunnelPackets;
        FakeService::Obey(self, packet);
    });
    Client& client = link.client;
    EXPECT_EQ(Outcome(client.Send(10, Bytes(248))), "invalid argument");
    EXPECT_EQ(Outcome(client.Send(10, Bytes{1, 2, 3, 4, 0x72})), "invalid argument");
    EXPECT_EQ(Outcome(client.OpenDevice(std::string(220, 'x'), 10)), "invalid argument");
    EXPECT_EQ(Outcome(client.Send(10, Bytes(247))), "done");
    link.Catchup();
    EXPECT_EQ(tunnelPackets, 2) << "the first opened the controller";
}

TEST(Client, ServesSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kRequests = 50;
    Link link(FakeService::On(0x73, [](FakeService& self, const Bytes& packet) {
        self.SendFramed(ChildBlock(10, 0, {packet[10]}));
        self.SendFramed(ControllerReply(1, 0, 0x98, 0x73, packet[10], 1));
    }));
    Client& client = link.client;
    ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    std::vector<std::future<int>> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::async(std::launch::async, [&] {
            int done = 0;
            for (int request = 0; request < kRequests; ++request) {
                if (client.QueryDaqApplication(kLong) && client.InitialSync(kLong)) ++done;
            }
            return done;
        }));
    }
    int blocks = 0;
    while (blocks < kThreads * kRequests && client.Receive(10, kLong)) ++blocks;
    EXPECT_EQ(blocks, kThreads * kRequests);
    for (auto& thread : threads) EXPECT_EQ(thread.get(), kRequests);
    EXPECT_EQ(client.Statistics().strayReplies, 0U);
}

TEST(Client, CloseEndsAllWaits) {
    Link link([](FakeService& self, const Bytes& packet) {
        if (packet[0] != 0x60 || packet[12] < 0x73) FakeService::Obey(self, packet);
    });
    Client& client = link.client;
    ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
    std::vector<std::future<std::string>> waits;
    const auto wait = [&](auto call) {
        waits.push_back(std::async(std::launch::async, [call] { return Outcome(call()); }));
    };
    wait([&] { return client.QueryDaqApplication(kLong); });
    wait([&] { return client.TakeDaqOver(kLong); });
    wait([&] { return client.Receive(10, kLong); });
    wait([&] { return client.ReceiveDaq(kLong); });
    client.Close();
    for (auto& each : waits) EXPECT_EQ(each.get(), "link lost");
    EXPECT_EQ(Outcome(client.SendRaw(Bytes{1})), "link lost");
    EXPECT_EQ(Outcome(client.Reconnect(kLong)), "invalid argument") << "it cannot make connections";
}

TEST(Client, ReconnectsUnderThreadsThatWait) {
    const std::string path = testing::TempDir() + "vexa-reconnect-" + std::to_string(getpid());
    std::atomic<bool> silent{false};
    FakeService service(
        [&](FakeService& self, const Bytes& packet) {
            if (!silent) FakeService::Obey(self, packet);
        },
        path);
    int attempts = 0;
    std::function<void()> beforeAttempt = [] {};
    auto connected = Client::Connect([&]() -> Expected<std::unique_ptr<Transport>> {
        beforeAttempt();
        // Every other attempt finds nobody: the first connection is the one of attempt 0.
        return SocketTransport::ConnectUnit(attempts++ % 2 == 0 ? path : path + "-none");
    });
    ASSERT_EQ(Outcome(connected), "done");
    Client& client = **connected;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(Outcome(client.OpenController(1, false, kLong)), "done");
        ASSERT_EQ(Outcome(client.OpenDevice("A", 10, kLong)), "done");
        auto waiting =
            std::async(std::launch::async, [&] { return Outcome(client.Receive(10, kLong)); });
        service.SendFramed(Sealed({0xA0, 5, 1, 0, 1}));
        ASSERT_EQ(Outcome(client.InitialSync(kLong)), "done");
        if (round == 1) service.HangUp();
        EXPECT_EQ(Outcome(client.Reconnect(kLong)), "done");
        EXPECT_EQ(Outcome(client.ReceiveDaq(kShort)), "timeout") << "so are packets of the DAQ";
        EXPECT_THAT(waiting.get(), testing::AnyOf("link lost", "invalid argument"));
        EXPECT_EQ(Outcome(client.Receive(10, kShort)), "invalid argument") << "children are gone";
        EXPECT_FALSE(client.LinkError());
    }
    silent = true;
    EXPECT_EQ(Outcome(client.Reconnect(kShort)), "cannot connect") << "at the last attempt";
    EXPECT_EQ(Outcome(client.SendRaw(Bytes{1})), "link lost");
    beforeAttempt = [&] { client.Close(); };
    EXPECT_EQ(Outcome(client.Reconnect(kLong)), "link lost") << "Close ends a Reconnect";
}

TEST(SerialTransport, TakesAWholeConversationAndLeavesTheLineAsItWas) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    const std::string path = ptsname(master);
    const int line = open(path.c_str(), O_RDWR | O_NOCTTY);
    termios before{};
    ASSERT_EQ(tcgetattr(line, &before), 0);
    std::thread unit([&] {  // echoes: a reply to each byte, whatever it is
        std::array<std::uint8_t, 100> bytes{};
        for (ssize_t n = 0; (n = read(master, bytes.data(), bytes.size())) > 0;) {
            if (write(master, bytes.data(), static_cast<std::size_t>(n)) != n) return;
        }
    });
    EXPECT_EQ(Outcome(SerialTransport::Open(path, {12345})), "invalid argument");
    EXPECT_EQ(Outcome(SerialTransport::Open("/dev/null", {})), "cannot connect");
    auto opened = SerialTransport::Open(path, {9600, true});
    ASSERT_EQ(Outcome(opened), "done");
    termios during{};
    tcgetattr(line, &during);
    EXPECT_EQ(cfgetospeed(&during), speed_t{B9600});
    EXPECT_NE(during.c_cflag & CRTSCTS, 0U);
    Bytes all(256);
    std::iota(all.begin(), all.end(), std::uint8_t{0});
    EXPECT_EQ(Outcome((*opened)->WriteAll(all, kLong)), "done");
    Bytes back;
    while (back.size() < all.size()) {
        std::array<std::uint8_t, 100> bytes{};
        const auto count = (*opened)->Read(bytes, kLong);
        if (!count || *count == 0) break;
        back.insert(back.end(), bytes.begin(), bytes.begin() + static_cast<long>(*count));
    }
    EXPECT_EQ(back, all) << "control characters and all";
    auto waiting = std::async(std::launch::async, [&] {
        std::array<std::uint8_t, 1> byte{};
        return Outcome((*opened)->Read(byte, kLong));
    });
    (*opened)->Close();
    EXPECT_EQ(waiting.get(), "link lost");
    termios after{};
    tcgetattr(line, &after);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    opened->reset();
    close(line);
    unit.join();  // with the last holder of the line gone, the unit's end reads no more
    close(master);
}

}  // namespace
}  // namespace vexahost
