// The stand-in libraries as the service calls them, and the control socket of their unit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <utility>

#include "VEXA.h"
#include "model/Faults.h"
#include "unit/UnitUnderTest.h"
#include "vexcri.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Blocks = Collected<Bytes>;
using Answer = std::pair<std::uint32_t, std::int32_t>;
using Answers = Collected<Answer>;

// A read callback; its context is a Blocks.
std::int32_t CollectBlock(const std::uint8_t* data, std::int32_t count, void* context) {
    static_cast<Blocks*>(context)->Add({data, data + count});
    return 0;
}

// Opens a session that collects its answers; 0 when that is refused.
std::uint32_t Begin(const char* application, Answers& answers) {
    const auto collect = [](void* context, std::uint32_t command, std::int32_t response) {
        static_cast<Answers*>(context)->Add({command, response});
    };
    std::uint32_t session = 0;
    return criInit(application, 1, collect, &answers, &session) == 1 ? session : 0;
}

class Libraries : public ::testing::Test {
  protected:
    void TearDown() override {
        Ask("fault.clear");
        EXPECT_EQ(VEXA_Uninit(library), 0);
    }

    // Opens a stream whose blocks are collected in `blocks`.
    [[nodiscard]] std::uint32_t Open(const char* device) {
        return VEXA_Device_Stream_Open(library, device, CollectBlock, 3, &blocks);
    }
    static std::int32_t Write(std::uint32_t stream, const Bytes& bytes) {
        return VEXA_Device_Stream_Write(stream, bytes.data(),
                                        static_cast<std::int32_t>(bytes.size()));
    }

    const std::string& folder = UnitFolder();
    const std::uint32_t library = VEXA_Init();
    Blocks blocks;
};

TEST_F(Libraries, EachStreamHasItsOwnEchoUntilItsLibraryEnds) {
    Blocks others;
    const auto other = VEXA_Init();
    const auto one = Open("Quiet");
    const auto two = VEXA_Device_Stream_Open(other, "Quiet", CollectBlock, 3, &others);
    EXPECT_EQ(Write(one, {}), 0);
    EXPECT_NE(Write(library, {1}), 0) << "not a stream";
    EXPECT_EQ(Write(one, {1, 2}), 0);
    EXPECT_EQ(Write(two, {3}), 0);
    EXPECT_THAT(others.Await(1), ElementsAre(Bytes{3}));
    EXPECT_EQ(VEXA_Uninit(other), 0);
    EXPECT_NE(VEXA_Uninit(other), 0);
    EXPECT_NE(Write(two, {1}), 0);
    EXPECT_EQ(Write(one, {4}), 0);
    EXPECT_THAT(blocks.Await(2), ElementsAre(Bytes{1, 2}, Bytes{4}));
    EXPECT_EQ(VEXA_Device_Stream_Close(one), 0);
    std::ifstream log(folder + "/journal");
    EXPECT_THAT(std::string(std::istreambuf_iterator<char>(log), {}),
                HasSubstr("VEXA_Device_Stream_Close(" + std::to_string(one) +
                          ") = 0  # \"Quiet\": 2 blocks out, 2 taken, 0 refused, 3 writes in\n"));
}

TEST_F(Libraries, NoCallbackRunsOnceItsStreamIsClosed) {
    const auto stream = Open("Fast");
    (void)blocks.Await(3);
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_NE(VEXA_Device_Stream_Close(stream), 0);
    const auto count = blocks.Now().size();
    Blocks others;
    const auto second = VEXA_Device_Stream_Open(library, "Fast", CollectBlock, 3, &others);
    (void)others.Await(5);
    EXPECT_EQ(blocks.Now().size(), count);
    EXPECT_EQ(VEXA_Device_Stream_Close(second), 0);

    Ask("fault.set", R"("call": "VEXA_Device_Stream_Close", "action": "data")");
    EXPECT_EQ(VEXA_Device_Stream_Close(Open("Quiet")), 0);
    EXPECT_EQ(blocks.Now().size(), count + 1) << "sent while closing: it is there on return";
}

TEST_F(Libraries, ACallbackMayCloseItsOwnStream) {
    using Results = Collected<std::int32_t>;
    static std::uint32_t stream = 0;
    const auto close = [](const std::uint8_t*, std::int32_t, void* results) -> std::int32_t {
        static_cast<Results*>(results)->Add(VEXA_Device_Stream_Close(stream));
        return -1;
    };
    Results results;
    stream = VEXA_Device_Stream_Open(library, "Quiet", close, 3, &results);
    EXPECT_EQ(Write(stream, {1}), 0);
    EXPECT_THAT(results.Await(1), ElementsAre(0));
}

TEST_F(Libraries, ApplicationsAnswerAsTheyAreTold) {
    Answers answers;
    const auto daq = Begin("DAQ", answers);
    const auto splash = Begin("SPLASH", answers);
    const auto silent = Begin("FGEN", answers);
    EXPECT_EQ(Begin("OTHER", answers), 0U);
    EXPECT_EQ(criCommand(silent, 4, 1000), 1);
    EXPECT_EQ(criCommand(splash, 2, 1000), 0) << "refused";
    for (const std::uint32_t command : {3U, 2U, 3U, 1U, 3U}) {  // it gives the hardware up
        EXPECT_EQ(criCommand(daq, command, 1000), 1);
    }
    EXPECT_THAT(answers.Await(5),
                ElementsAre(Answer{3, 1}, Answer{2, 1}, Answer{3, 0}, Answer{1, 1}, Answer{3, 1}));
    EXPECT_EQ(criCommand(splash, 1, 1000), 1);
    EXPECT_EQ(answers.Await(6).back(), Answer(1, -5));

    Ask("app", R"("name": "DAQ", "strays": [{"when": "after", "command": 8, "response": -8},)"
               R"({"when": "before", "command": 7, "response": 70}])");
    EXPECT_EQ(criCommand(daq, 3, 0), 1);
    EXPECT_THAT(answers.Await(9), ::testing::IsSupersetOf({Answer{7, 70}, Answer{8, -8}}));
    EXPECT_EQ(answers.Now()[7], Answer(3, 1));
    Ask("app", R"("name": "DAQ", "strays": [{"intervalMs": 1, "command": 9, "response": 0}])");
    EXPECT_EQ(answers.Await(11).back(), Answer(9, 0));
    for (const std::uint32_t session : {daq, splash, silent}) {
        EXPECT_EQ(criTerminate(session, 1), 1);
        EXPECT_EQ(criCommand(session, 3, 1000), 0);
    }
}

TEST_F(Libraries, ADeviceWithASourceComesAndGoesWithIt) {
    const std::string path = folder + "/line";
    const auto isFound = [&] {
        const auto state = Ask("state");
        return std::ranges::any_of(state["devices"], [](const auto& device) {
            return device["name"] == "Sourced" && device["found"] == true;
        });
    };
    Ask("attach", R"("name": "Sourced", "type": 11, "source": {"serial": ")" + path + "\"}");
    EXPECT_EQ(Open("Sourced"), 0U) << "it is not there";
    for (int time = 0; time < 2; ++time) {
        std::array<char, 256> name{};
        int ends[2];
        ASSERT_EQ(::openpty(&ends[0], &ends[1], name.data(), nullptr, nullptr), 0);
        Descriptor instrument(ends[0]);
        Descriptor held(ends[1]);
        std::filesystem::create_symlink(name.data(), path);
        ASSERT_TRUE(Eventually(isFound));
        const auto before = blocks.Now().size();
        const auto stream = Open("Sourced");
        const auto other = Open("Sourced");
        EXPECT_EQ(Write(stream, {'g', 'o'}), 0);
        std::array<char, 2> heard{};
        EXPECT_EQ(::read(ends[0], heard.data(), heard.size()), 2);
        EXPECT_EQ(::write(ends[0], "hi\n", 3), 3);
        EXPECT_EQ(blocks.Await(before + 2).back(), (Bytes{'h', 'i', '\n'})) << "each has them";
        std::filesystem::remove(path);
        held.Close();
        instrument.Close();
        EXPECT_TRUE(Eventually([&] { return Write(stream, {1}) != 0; }));
        ASSERT_TRUE(Eventually([&] { return !isFound(); }));
        EXPECT_EQ(Open("Sourced"), 0U);
        EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0) << "it stayed open";
        EXPECT_EQ(VEXA_Device_Stream_Close(other), 0);
    }
}

TEST_F(Libraries, ProgramsOfAnApplicationRunOneAfterTheOther) {
    Answers answers;
    const std::string busy = folder + "/busy";
    // Fails when another runs at the same time.
    const std::string once =
        R"(["sh", "-c", "mkdir )" + busy + " && sleep 0.05; rmdir " + busy + "\"]";
    Ask("app", R"("name": "DAQ", "strays": [], "program": {"activate": )" + once +
                   R"(, "query": ["false"],)"
                   R"( "notify": ["sleep", "1000"], "timeoutMs": 600000})");
    const auto daq = Begin("DAQ", answers);
    const auto other = Begin("DAQ", answers);
    for (const auto session : {daq, other, daq, other}) EXPECT_EQ(criCommand(session, 1, 0), 1);
    EXPECT_THAT(answers.Await(4), ::testing::Each(Answer(1, 1)));
    EXPECT_EQ(criCommand(daq, 3, 0), 1);
    EXPECT_EQ(answers.Await(5).back(), Answer(3, 0));
    EXPECT_EQ(criCommand(daq, 2, 0), 1) << "as simulated: there is no command for it";
    EXPECT_EQ(answers.Await(6).back(), Answer(2, 1));
    EXPECT_EQ(criCommand(daq, 4, 0), 1);
    EXPECT_EQ(criCommand(other, 1, 0), 1);
    EXPECT_EQ(criTerminate(daq, 1), 1) << "does not wait for it to end by itself";
    EXPECT_EQ(criTerminate(other, 1), 1);
    EXPECT_LE(answers.Now().size(), 7U);
}

TEST_F(Libraries, EachCallFailsWhenAFaultSaysSo) {
    // Makes each call in the order of kCalls; how many worked until the first that failed.
    const auto makeAll = [&] {
        std::uint32_t word = 0;
        std::uint32_t handle = 0;
        std::uint16_t number = 0;
        std::array<char, 220> name{};
        Answers answers;
        const bool worked[] = {
            (handle = VEXA_Init()) != 0,
            VEXA_Uninit(handle) == 0,
            VEXA_GetDLLVersion(library, &number, &number) == 0,
            VEXA_Diags_SetDebugTraceThreshold(library, 1) == 0,
            VEXA_GetDeviceTypeFromDeviceName("Quiet", &word) == 0,
            VEXA_SearchForDevices(library, 8, 1, 0, &word) == 0,
            (handle = VEXA_OpenDeviceListSnapshot(library, 8, &word, &word)) != 0,
            VEXA_DeviceListSnapshot_GetNthEntry(handle, 0, name.data(), 220, &word) == 0,
            VEXA_CloseDeviceListSnapshot(handle) == 0,
            (handle = Open("Quiet")) != 0,
            Write(handle, {1}) == 0,
            VEXA_Device_Stream_Close(handle) == 0,
            VEXA_Device_GetOpenDeviceName(Open("Quiet"), name.data(), 220) == 0,
            (handle = VEXA_Device_Open(library, "Quiet", 1)) != 0,
            VEXA_Device_Close(handle) == 0,
            (handle = Begin("FGEN", answers)) != 0,
            criCommand(handle, 4, 0) == 1,
            criTerminate(handle, 1) == 1,
        };
        return static_cast<std::size_t>(std::ranges::find(worked, false) - worked);
    };
    constexpr auto kCount = static_cast<std::size_t>(Call::kNodeOpen);
    for (std::size_t index = 0; index < kCount; ++index) {
        const std::string call = R"("call": ")" + std::string(kCalls[index].name) + "\"";
        Ask("fault.set", call + R"(, "action": "fail")");
        EXPECT_EQ(makeAll(), index) << call;
        EXPECT_EQ(Ask("fault.clear", call)["cleared"], 1);
    }
    EXPECT_EQ(makeAll(), kCount);
}

TEST_F(Libraries, FailWithoutThreadsAndWorkAgainWithThem) {
#ifdef VEXA_EMULATED
    GTEST_SKIP() << "the emulator does not pass the limit on";
#endif
    pthread_attr_t former;
    ASSERT_EQ(pthread_getattr_default_np(&former), 0);
    pthread_attr_t greedy;
    ASSERT_EQ(pthread_getattr_default_np(&greedy), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&greedy, std::size_t{1} << (sizeof(void*) * 8 - 2)), 0);
    Answers answers;
    ASSERT_EQ(pthread_setattr_default_np(&greedy), 0);  // no thread gets such a stack
    EXPECT_EQ(Open("Quiet"), 0U);
    EXPECT_EQ(Begin("SPLASH", answers), 0U);
    ASSERT_EQ(pthread_setattr_default_np(&former), 0);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_FALSE(sigismember(&blocked, SIGTERM));
    EXPECT_TRUE(Ask("state")["streams"].empty());
    const auto stream = Open("Quiet");
    EXPECT_EQ(Write(stream, {1}), 0);
    EXPECT_THAT(blocks.Await(1), ElementsAre(Bytes{1}));
    std::ifstream log(folder + "/journal");
    EXPECT_THAT(
        std::string(std::istreambuf_iterator<char>(log), {}),
        HasSubstr("VEXA_Device_Stream_Write(" + std::to_string(stream) + ", length 1) = 0\n"));
}

TEST_F(Libraries, SpoilWhatADeviceSendsAndFailForOneDevice) {
    Ask("fault.set", R"("call": "VEXA_Device_Stream_Write", "action": "fail", "for": "Tilt")");
    EXPECT_NE(Write(Open("Tilt"), {1}), 0);
    Ask("fault.set", R"("call": "data", "action": "corrupt", "count": 1)");
    Ask("fault.set", R"("call": "data", "action": "corrupt", "skip": 1, "count": 1, "offset": 0)");
    Ask("fault.set", R"("call": "data", "action": "oversize", "skip": 2, "count": 1, "bytes": 5)");
    const auto stream = Open("Quiet");
    for (int times = 0; times < 4; ++times) EXPECT_EQ(Write(stream, {1, 2, 3}), 0);
    EXPECT_THAT(blocks.Await(4), ElementsAre(Bytes{1, 0xFD, 3}, Bytes{0xFE, 2, 3},
                                             Bytes{1, 2, 3, 1, 2}, Bytes{1, 2, 3}));
}

TEST_F(Libraries, DevicesAreAttachedDetachedAndChanged) {
    EXPECT_EQ(Open("Late"), 0U);
    Ask("attach", R"("name": "Late", "type": 9, "rate": 500, "blockSize": 33)");
    const auto stream = Open("Late");
    EXPECT_EQ(blocks.Await(2)[0].size(), 33U);
    Ask("detach", R"("name": "Late")");
    EXPECT_EQ(Open("Late"), 0U);
    EXPECT_EQ(Ask("state")["streams"].back()["attached"], false);
    Ask("attach", R"("name": "Late")");
    EXPECT_NE(Write(stream, {1}), 0) << "a stream does not come back";
    EXPECT_NE(Open("Late"), 0U);
    Ask("detach", R"("name": "Late")");

    Ask("daq", R"("present": false)");
    EXPECT_EQ(Open("Board"), 0U);
    Ask("attach", R"("name": "Board")");
    Blocks replies;
    const auto link = VEXA_Device_Stream_Open(library, "Board", CollectBlock, 3, &replies);
    Ask("daq", R"("acknowledges": false)");
    EXPECT_EQ(Write(link, {0x40, 6, 1, 0, 9, 0}), 0);
    Ask("daq", R"("acknowledges": true)");
    EXPECT_EQ(Write(link, {0x40, 6, 2, 0, 9, 0}), 0);
    EXPECT_EQ(replies.Await(1)[0][5], 2) << "an open link follows the change in between";
}

TEST_F(Libraries, TheControlSocketSaysWhatIsWrongWithARequest) {
    const std::pair<std::string, const char*> cases[] = {
        {"\xFF", "not valid JSON"},
        {"[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]", "nested too deeply"},
        {Line("reboot"), R"(request: expected "attach", "detach")"},
        {Line("attach", R"("name": "New")"), "a new one needs a \"type\""},
        {Line("attach", R"("name": "Board", "rate": 1)"), "changed with \"daq\""},
        {Line("detach", R"("name": "None")"), "there is no device \"None\""},
        {Line("daq", R"("name": "Other")"), "keeps its name"},
        {Line("app", R"("name": "OTHER")"), R"(there are "DAQ", "FGEN", "SPLASH")"},
        {Line("cable"), R"(the whole: expected "in" or "flap")"},
        {Line("cable", R"("flap": {"inMs": 0})"), "flap.inMs: expected a whole number"},
        {Line("fault.clear", R"("id": 1000000)"), "there is no fault 1000000"},
        {Line("fault.set", R"("call": "VEXA_Init", "action": "fail", "for": "A")"),
         "for: is of no use here"},
        {Line("fault.set", R"("call": "node.read", "action": "fail", "errno": "EGG")"),
         "errno: expected \"EACCES\""},
        {Line("fault.set", R"("call": "data", "action": "corrupt", "for": "None")"),
         R"(for: there is no device "None"; there are "Fast", "Quiet", "Tilt")"},
        {Line("fault.set", R"("call": "criInit", "action": "fail", "for": "A", "later": true)"),
         R"(for: there is no application "A"; there are "DAQ", "FGEN", "SPLASH")"},
        {Line("wait", R"("for": "1s")"), "expected a condition to wait for"},
        {Line("wait", R"("host": true, "for": "1 day")"), "for: expected a time of at most 24h"},
    };
    for (const auto& [line, error] : cases) {
        EXPECT_THAT(AskLine(line).value("error", ""), HasSubstr(error)) << line;
    }
    EXPECT_TRUE(Ask("fault.list")["faults"].empty());
}

TEST_F(Libraries, TheTimelineChangesTheUnitByItself) {
    std::uint32_t type = 0;
    EXPECT_TRUE(Eventually([&] { return VEXA_GetDeviceTypeFromDeviceName("Timed", &type) == 0; }));
    EXPECT_EQ(type, 9U);
    EXPECT_TRUE(Eventually([&] {  // once, and repeated twice
        std::ifstream log(folder + "/journal");
        int count = 0;
        for (std::string line; std::getline(log, line);) count += line.starts_with("timeline {");
        return count == 3;
    }));
}

TEST_F(Libraries, ListenersGetEventsAndWaitersAnAnswerOnceItIsSo) {
    const std::string path = ControlSocketPath(folder);
    const auto ask = [](const Descriptor& socket, const std::string& line) {
        EXPECT_GT(::send(socket.Get(), (line + "\n").c_str(), line.size() + 1, 0), 0);
    };
    const std::string done = "{\"ok\":true}\n";
    const Descriptor listener = ConnectTo(path);
    ask(listener, Line("events"));
    EXPECT_EQ(Receive(listener, done.size()), done);
    const Descriptor waiter = ConnectTo(path);
    ask(waiter, Line("wait", R"("streaming": "Quiet", "closed": "Tilt", "for": "1h")"));
    const auto stream = Open("Quiet");
    std::array<char, 1> early{};
    EXPECT_LT(::recv(waiter.Get(), early.data(), early.size(), MSG_DONTWAIT), 0);
    EXPECT_EQ(Write(stream, {1}), 0);
    EXPECT_EQ(Receive(waiter, done.size()), done);
    const std::string event = R"({"event":"call","call":"VEXA_Device_Stream_Open","for":"Quiet",)";
    std::string events;  // also what the timeline does meanwhile
    EXPECT_TRUE(testkit::WaitUntil(std::chrono::seconds(20), [&] {
        events += Receive(listener, 1);
        return events.find(event) != std::string::npos;
    })) << events;
}

TEST_F(Libraries, TheControlSocketOutlivesItsClients) {
    const std::string path = ControlSocketPath(folder);
    const Descriptor endless = ConnectTo(path);
    const std::string chunk(50000, 'x');
    ASSERT_GT(::send(endless.Get(), chunk.data(), chunk.size(), 0), 0);
    ASSERT_GT(::send(endless.Get(), chunk.data(), chunk.size(), MSG_NOSIGNAL), 0);
    EXPECT_THAT(Receive(endless, 1000), HasSubstr("a line may have")) << "and then hangs up";

    const Descriptor deaf = ConnectTo(path);  // receives no answers
    const std::string request = Line("state") + "\n";
    while (::send(deaf.Get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    // A last line without an end is answered, too.
    const Descriptor plain = ConnectTo(path);
    ASSERT_EQ(::send(plain.Get(), "{}\n[]", 5, 0), 5);
    ::shutdown(plain.Get(), SHUT_WR);
    EXPECT_EQ(std::ranges::count(Receive(plain, 10000), '\n'), 2);

    std::vector<Descriptor> idle;
    for (int count = 0; count < 70; ++count) {
        idle.push_back(ConnectTo(path));
        Ask("fault.list");
    }
    EXPECT_THAT(Receive(idle.front(), 1000), HasSubstr("idle longest"));
}

}  // namespace
}  // namespace vexa::unit
