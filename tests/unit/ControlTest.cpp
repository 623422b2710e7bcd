// The control socket of this process's unit.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <array>

#include "VEXA.h"
#include "unit/UnitUnderTest.h"
#include "vexcri.h"
#include "zt_usb.h"

namespace vexa::unit {
namespace {

using ::testing::HasSubstr;

TEST(Control, SaysWhatIsWrongWithARequest) {
    struct Case {
        const char* request;
        const char* error;
    };
    const Case cases[] = {
        {"", "not valid JSON"},
        {"{\"request\": \"state\"} x", "not valid JSON"},
        {"\xFF", "not valid JSON"},
        {"[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]", "nested too deeply"},
        {"7", "the whole: expected an object, not 7"},
        {"{}", "request: is missing"},
        {R"({"request": "reboot"})", R"(request: expected "attach", "detach")"},
        {R"({"request": "state", "all": 1})", "all: unknown key"},
        {R"({"request": "attach"})", "name: is missing"},
        {R"({"request": "attach", "name": "New"})", "a new one needs a \"type\""},
        {R"({"request": "attach", "name": "Quiet", "rate": -1})", "rate: expected a number per"},
        {R"({"request": "attach", "name": "Board", "rate": 1})", "changed with \"daq\""},
        {R"({"request": "detach", "name": "None"})", "there is no device \"None\""},
        {R"({"request": "daq", "name": "Other"})", "keeps its name"},
        {R"({"request": "app", "name": "OTHER"})", "expected \"DAQ\", \"SPLASH\" or \"FGEN\""},
        {R"({"request": "app", "name": "DAQ", "strays": [{"command": 1}]})",
         "strays[0].response: is missing"},
        {R"({"request": "cable", "flap": {"inMs": 0}})", "flap.inMs: expected a whole number"},
        {R"({"request": "fault.clear", "id": 1000000})", "there is no fault 1000000"},
        {R"({"request": "fault.set", "action": "fail"})", "call: is missing"},
        {R"({"request": "fault.set", "call": "VEXA_Exit", "action": "fail"})", "name of a call"},
        {R"({"request": "fault.set", "call": "VEXA_Init"})", "action: is missing"},
        {R"({"request": "fault.set", "call": "VEXA_Init", "action": "short"})",
         R"(action: expected "fail", "block" or "late", not "short")"},
        {R"({"request": "fault.set", "call": "VEXA_Init", "action": "block"})", "ms: is missing"},
        {R"({"request": "fault.set", "call": "VEXA_Init", "action": "fail", "ms": 1})",
         "ms: is of no use here"},
        {R"({"request": "fault.set", "call": "VEXA_Init", "action": "fail", "for": "A"})",
         "for: is of no use here"},
        {R"({"request": "fault.set", "call": "criInit", "action": "fail", "errno": "EIO"})",
         "errno: is of no use here"},
        {R"({"request": "fault.set", "call": "node.read", "action": "fail", "errno": "EGG"})",
         "errno: expected \"EACCES\""},
        {R"({"request": "fault.set", "call": "node.read", "action": "short"})",
         "bytes: is missing"},
    };
    for (const auto& [request, error] : cases) {
        const auto answer = AskLine(request);
        EXPECT_EQ(answer["ok"], false) << request;
        EXPECT_THAT(answer.value("error", ""), HasSubstr(error)) << request;
    }
    const auto faults = Ask("fault.list");
    EXPECT_TRUE(faults["faults"].empty()) << faults;
}

TEST(Control, OutlivesItsClients) {
    const std::string path = ControlSocketPath(UnitFolderUnderTest());
    const Descriptor endless = ConnectTo(path);
    const std::string chunk(50000, 'x');
    ASSERT_GT(::send(endless.Get(), chunk.data(), chunk.size(), 0), 0);
    ASSERT_GT(::send(endless.Get(), chunk.data(), chunk.size(), MSG_NOSIGNAL), 0);
    EXPECT_THAT(Receive(endless, 1000), HasSubstr("a line may have")) << "and then hangs up";

    // One that takes no answers, and several that leave in the middle of a line.
    const Descriptor deaf = ConnectTo(path);
    const std::string request = "{\"request\": \"state\"}\n";
    while (::send(deaf.Get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    for (int count = 0; count < 10; ++count) {
        const Descriptor brief = ConnectTo(path);
        EXPECT_EQ(::send(brief.Get(), "{", 1, 0), 1);
    }
    // A last line without an end is answered, too.
    const Descriptor plain = ConnectTo(path);
    ASSERT_EQ(::send(plain.Get(), "{}\n[]", 5, 0), 5);
    ::shutdown(plain.Get(), SHUT_WR);
    const std::string answers = Receive(plain, 10000);
    EXPECT_EQ(std::count(answers.begin(), answers.end(), '\n'), 2) << answers;
}

TEST(Control, DevicesComeAndGo) {
    const auto library = VEXA_Init();
    Blocks blocks;
    const auto open = [&](const char* name) {
        return VEXA_Device_Stream_Open(library, name, CollectBlock, 3, &blocks);
    };
    EXPECT_EQ(open("Late"), 0U);
    EXPECT_EQ(Ask("attach", R"("name": "Late", "type": 9, "rate": 500, "blockSize": 33)")["ok"],
              true);
    const auto stream = open("Late");
    EXPECT_EQ(blocks.Await(2)[0].size(), 33U);
    EXPECT_EQ(Ask("detach", R"("name": "Late")")["ok"], true);
    EXPECT_NE(VEXA_Device_Stream_Write(stream, "x", 1), 0);
    EXPECT_EQ(open("Late"), 0U);
    const auto state = Ask("state");
    EXPECT_EQ(state["streams"].back()["device"], "Late");
    EXPECT_EQ(state["streams"].back()["attached"], false);
    EXPECT_EQ(Ask("attach", R"("name": "Late")")["ok"], true);
    EXPECT_NE(VEXA_Device_Stream_Write(stream, "x", 1), 0) << "a stream does not come back";
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_NE(open("Late"), 0U);
    EXPECT_EQ(Ask("detach", R"("name": "Late")")["ok"], true);

    for (const char* request :
         {R"({"request": "detach", "name": "Board"})", R"({"request": "daq", "present": false})"}) {
        EXPECT_EQ(AskLine(request)["ok"], true);
        EXPECT_EQ(open("Board"), 0U);
        EXPECT_EQ(Ask("attach", R"("name": "Board")")["ok"], true);
        EXPECT_NE(open("Board"), 0U);
    }
    EXPECT_EQ(VEXA_Uninit(library), 0);
}

TEST(Control, AnOpenLinkFollowsTheBoard) {
    const auto library = VEXA_Init();
    Blocks blocks;
    const auto stream = VEXA_Device_Stream_Open(library, "Board", CollectBlock, 4, &blocks);
    const std::array<std::uint8_t, 6> command = {0x40, 6, 1, 0, 9, 0};
    const auto ask = [&] { return VEXA_Device_Stream_Write(stream, command.data(), 6); };
    EXPECT_EQ(Ask("daq", R"("acknowledges": false)")["ok"], true);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(Ask("daq", R"("acknowledges": true)")["ok"], true);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(blocks.Await(1).size(), 1U);
    EXPECT_EQ(VEXA_Uninit(library), 0);
}

TEST(Control, ApplicationsTalkOutOfTurn) {
    using ::testing::ElementsAre;
    Answers answers;
    std::uint32_t session = 0;
    ASSERT_EQ(criInit("DAQ", 1, CollectAnswer, &answers, &session), 1);
    const auto strays = [](const std::string& list) {
        return Ask("app", R"("name": "DAQ", "holds": true, "strays": [)" + list + "]")["ok"];
    };
    EXPECT_EQ(strays(R"({"when": "after", "command": 8, "response": -8},
                        {"when": "before", "command": 7, "response": 70})"),
              true);
    EXPECT_EQ(criCommand(session, 3, 0), 1);
    EXPECT_THAT(answers.Await(3), ElementsAre(Answer{7, 70}, Answer{3, 1}, Answer{8, -8}));
    EXPECT_EQ(strays(R"({"intervalMs": 1, "command": 9, "response": 0})"), true);
    EXPECT_EQ(answers.Await(5).back(), Answer(9, 0));
    EXPECT_EQ(strays(""), true);
    EXPECT_EQ(criTerminate(session, 1), 1);
}

TEST(Control, TheCableGoesOutAndInByHandAndByItself) {
    const Descriptor node(::open(ZT_USB_NODE, O_RDWR));
    Descriptor host = ConnectHost(UnitFolderUnderTest());
    const auto isIn = [&] {
        int status = -1;
        return ::ioctl(node.Get(), ZTG_LINK_STATUS, &status) == 0 && status == 1;
    };
    ASSERT_TRUE(Eventually(isIn));
    EXPECT_EQ(Ask("cable", R"("in": false)")["ok"], true);
    EXPECT_FALSE(isIn());
    EXPECT_EQ(Receive(host, 1), "");
    host = ConnectHost(UnitFolderUnderTest());
    EXPECT_EQ(Receive(host, 1), "") << "turned away";
    EXPECT_FALSE(isIn());

    EXPECT_EQ(Ask("cable", R"("flap": {"inMs": 20, "outMs": 1})")["ok"], true);
    const auto hosts = [] { return Ask("state")["cable"]["hosts"].get<int>(); };
    for (const int before = hosts(); hosts() < before + 2;) {
        host = ConnectHost(UnitFolderUnderTest());
        EXPECT_EQ(Receive(host, 1), "") << "plugged in for a while, or turned away at once";
    }
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(Ask("cable", R"("in": true)")["ok"], true);
        if (times == 0) host = ConnectHost(UnitFolderUnderTest());
        EXPECT_TRUE(Eventually(isIn));
        EXPECT_FALSE(IsHungUp(host)) << "what is in already is not disturbed";
    }
}

}  // namespace
}  // namespace vexa::unit
