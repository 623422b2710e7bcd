// The control socket of this process's unit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/UnitUnderTest.h"
#include "vexcri.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Control = WithLibrary;

TEST_F(Control, SaysWhatIsWrongWithARequest) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "not valid JSON"},
        {"{\"request\": \"state\"} x", "not valid JSON"},
        {"\xFF", "not valid JSON"},
        {"[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]", "nested too deeply"},
        {"7", "the whole: expected an object, not 7"},
        {"{}", "request: is missing"},
        {Line("reboot"), R"(request: expected "attach", "detach")"},
        {Line("state", R"("all": 1)"), "all: unknown key"},
        {Line("attach"), "name: is missing"},
        {Line("attach", R"("name": "New")"), "a new one needs a \"type\""},
        {Line("attach", R"("name": "Quiet", "rate": -1)"), "rate: expected a number per"},
        {Line("attach", R"("name": "Board", "rate": 1)"), "changed with \"daq\""},
        {Line("detach", R"("name": "None")"), "there is no device \"None\""},
        {Line("daq", R"("name": "Other")"), "keeps its name"},
        {Line("app", R"("name": "OTHER")"), "expected \"DAQ\", \"SPLASH\" or \"FGEN\""},
        {Line("app", R"("name": "DAQ", "strays": [{"command": 1}])"),
         "strays[0].response: is missing"},
        {Line("cable", R"("flap": {"inMs": 0})"), "flap.inMs: expected a whole number"},
        {Line("fault.clear", R"("id": 1000000)"), "there is no fault 1000000"},
        {Line("fault.set", R"("action": "fail")"), "call: is missing"},
        {Line("fault.set", R"("call": "VEXA_Exit", "action": "fail")"), "name of a call"},
        {Line("fault.set", R"("call": "VEXA_Init")"), "action: is missing"},
        {Line("fault.set", R"("call": "VEXA_Init", "action": "short")"),
         R"(action: expected "fail", "block" or "late", not "short")"},
        {Line("fault.set", R"("call": "VEXA_Init", "action": "block")"), "ms: is missing"},
        {Line("fault.set", R"("call": "VEXA_Init", "action": "fail", "ms": 1)"),
         "ms: is of no use here"},
        {Line("fault.set", R"("call": "VEXA_Init", "action": "fail", "for": "A")"),
         "for: is of no use here"},
        {Line("fault.set", R"("call": "criInit", "action": "fail", "errno": "EIO")"),
         "errno: is of no use here"},
        {Line("fault.set", R"("call": "node.read", "action": "fail", "errno": "EGG")"),
         "errno: expected \"EACCES\""},
        {Line("fault.set", R"("call": "node.read", "action": "short")"), "bytes: is missing"},
    };
    for (const auto& [line, error] : cases) {
        const auto answer = AskLine(line);
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_THAT(answer.value("error", ""), HasSubstr(error)) << line;
    }
    const auto faults = Ask("fault.list");
    EXPECT_TRUE(faults["faults"].empty()) << faults;
}

TEST_F(Control, OutlivesItsClients) {
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

TEST_F(Control, DevicesComeAndGo) {
    EXPECT_EQ(Open("Late"), 0U);
    Ask("attach", R"("name": "Late", "type": 9, "rate": 500, "blockSize": 33)");
    const auto stream = Open("Late");
    EXPECT_EQ(blocks.Await(2)[0].size(), 33U);
    Ask("detach", R"("name": "Late")");
    EXPECT_NE(Write(stream, {1}), 0);
    EXPECT_EQ(Open("Late"), 0U);
    const auto state = Ask("state");
    EXPECT_EQ(state["streams"].back()["device"], "Late");
    EXPECT_EQ(state["streams"].back()["attached"], false);
    Ask("attach", R"("name": "Late")");
    EXPECT_NE(Write(stream, {1}), 0) << "a stream does not come back";
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_NE(Open("Late"), 0U);
    Ask("detach", R"("name": "Late")");

    for (const bool byName : {true, false}) {
        Ask(byName ? "detach" : "daq", byName ? R"("name": "Board")" : R"("present": false)");
        EXPECT_EQ(Open("Board"), 0U);
        Ask("attach", R"("name": "Board")");
        EXPECT_NE(Open("Board"), 0U);
    }
}

TEST_F(Control, AnOpenLinkFollowsTheBoard) {
    const auto stream = Open("Board");
    const auto ask = [&] { return Write(stream, {0x40, 6, 1, 0, 9, 0}); };
    Ask("daq", R"("acknowledges": false)");
    EXPECT_EQ(ask(), 0);
    Ask("daq", R"("acknowledges": true)");
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(blocks.Await(1).size(), 1U);
}

TEST_F(Control, ApplicationsTalkOutOfTurn) {
    Answers answers;
    std::uint32_t session = 0;
    ASSERT_EQ(criInit("DAQ", 1, CollectAnswer, &answers, &session), 1);
    const auto strays = [](const std::string& list) {
        Ask("app", R"("name": "DAQ", "holds": true, "strays": [)" + list + "]");
    };
    strays(R"({"when": "after", "command": 8, "response": -8},
                        {"when": "before", "command": 7, "response": 70})");
    EXPECT_EQ(criCommand(session, 3, 0), 1);
    EXPECT_THAT(answers.Await(3), ElementsAre(Answer{7, 70}, Answer{3, 1}, Answer{8, -8}));
    strays(R"({"intervalMs": 1, "command": 9, "response": 0})");
    EXPECT_EQ(answers.Await(5).back(), Answer(9, 0));
    strays("");
    EXPECT_EQ(criTerminate(session, 1), 1);
}

}  // namespace
}  // namespace vexa::unit
