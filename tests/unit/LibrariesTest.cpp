// The stand-in libraries as the service calls them, well and with faults.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <utility>

#include "model/Faults.h"
#include "unit/UnitUnderTest.h"
#include "vexcri.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using Libraries = WithLibrary;

TEST_F(Libraries, ListsTheAttachedDevicesOfAType) {
    std::uint32_t type = 8;
    EXPECT_NE(VEXA_GetDeviceTypeFromDeviceName("Nothing", &type), 0);
    EXPECT_EQ(type, 8U) << "an unknown name leaves the type alone";
    std::uint32_t count = 0;
    std::uint32_t word = 0;
    const auto list = VEXA_OpenDeviceListSnapshot(library, 8, &count, &word);
    EXPECT_EQ(count, 2U);
    std::array<char, 220> name{};
    EXPECT_EQ(VEXA_DeviceListSnapshot_GetNthEntry(list, 1, name.data(), name.size(), &word), 0);
    EXPECT_STREQ(name.data(), "Quiet");
    EXPECT_NE(VEXA_DeviceListSnapshot_GetNthEntry(list, 0, name.data(), 4, &word), 0) << "Fast";
    EXPECT_EQ(VEXA_CloseDeviceListSnapshot(list), 0);
    EXPECT_NE(VEXA_CloseDeviceListSnapshot(list), 0);
    EXPECT_EQ(VEXA_Device_Stream_Open(library, "Gone", CollectBlock, 3, nullptr), 0U);
}

TEST_F(Libraries, EachStreamHasItsOwnEchoUntilItsLibraryEnds) {
    Blocks first;
    Blocks second;
    const auto other = VEXA_Init();
    const auto one = VEXA_Device_Stream_Open(library, "Quiet", CollectBlock, 3, &first);
    const auto two = VEXA_Device_Stream_Open(other, "Quiet", CollectBlock, 3, &second);
    EXPECT_EQ(Write(one, {}), 0);
    EXPECT_NE(VEXA_Device_Stream_Write(one, "x", -1), 0);
    EXPECT_NE(Write(library, {1}), 0) << "not a stream";
    EXPECT_EQ(Write(one, {1, 2}), 0);
    EXPECT_EQ(Write(two, {3}), 0);
    EXPECT_THAT(second.Await(1), ElementsAre(Bytes{3}));
    EXPECT_EQ(VEXA_Uninit(other), 0);
    EXPECT_NE(VEXA_Uninit(other), 0);
    EXPECT_NE(Write(two, {1}), 0);
    EXPECT_EQ(Write(one, {4}), 0);
    EXPECT_THAT(first.Await(2), ElementsAre(Bytes{1, 2}, Bytes{4}));
}

TEST_F(Libraries, NoCallbackRunsOnceItsStreamIsClosed) {
    const auto stream = Open("Fast");
    (void)blocks.Await(3);
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    const auto count = blocks.Await(0).size();
    Blocks others;
    (void)VEXA_Device_Stream_Open(library, "Fast", CollectBlock, 3, &others);
    EXPECT_GE(others.Await(5).size(), 5U);
    EXPECT_EQ(blocks.Await(0).size(), count);
    EXPECT_NE(VEXA_Device_Stream_Close(stream), 0);
}

// What a callback closes itself, and what came of it.
struct Closing {
    std::atomic<std::uint32_t> handle = 0;
    Collected<std::int32_t> results;
};

TEST_F(Libraries, ACallbackMayCloseItsOwnStreamOrSession) {
    Closing stream;
    const auto close = [](const std::uint8_t*, std::int32_t, void* context) -> std::int32_t {
        auto& self = *static_cast<Closing*>(context);
        self.results.Add(VEXA_Device_Stream_Close(self.handle));
        return -1;
    };
    stream.handle = VEXA_Device_Stream_Open(library, "Quiet", close, 3, &stream);
    EXPECT_EQ(Write(stream.handle, {1}), 0);
    EXPECT_THAT(stream.results.Await(1), ElementsAre(0));
    EXPECT_NE(Write(stream.handle, {1}), 0);

    Closing session;
    const auto end = [](void* context, std::uint32_t, std::int32_t) {
        auto& self = *static_cast<Closing*>(context);
        self.results.Add(criTerminate(self.handle, 1));
    };
    std::uint32_t handle = 0;
    ASSERT_EQ(criInit("DAQ", 1, end, &session, &handle), 1);
    session.handle = handle;
    EXPECT_EQ(criCommand(handle, 3, 1000), 1);
    EXPECT_THAT(session.results.Await(1), ElementsAre(1));
}

TEST(Sessions, ApplicationsAnswerAsTheScenarioSays) {
    Answers answers;
    std::uint32_t daq = 0;
    std::uint32_t splash = 0;
    std::uint32_t silent = 0;
    EXPECT_EQ(criInit("OTHER", 1, CollectAnswer, &answers, &daq), 0);
    EXPECT_EQ(daq, 0U);
    ASSERT_EQ(criInit("DAQ", 1, CollectAnswer, &answers, &daq), 1);
    ASSERT_EQ(criInit("SPLASH", 1, CollectAnswer, &answers, &splash), 1);
    ASSERT_EQ(criInit("FGEN", 1, CollectAnswer, &answers, &silent), 1);
    EXPECT_EQ(criCommand(silent, 4, 1000), 1);
    EXPECT_EQ(criCommand(splash, 2, 1000), 0) << "refused";
    for (const std::uint32_t command : {3U, 2U, 3U, 1U, 3U}) {  // it gives the hardware up
        EXPECT_EQ(criCommand(daq, command, 1000), 1);
    }
    EXPECT_THAT(answers.Await(5),
                ElementsAre(Answer{3, 1}, Answer{2, 1}, Answer{3, 0}, Answer{1, 1}, Answer{3, 1}));
    EXPECT_EQ(criCommand(splash, 1, 1000), 1);
    EXPECT_EQ(answers.Await(6).back(), Answer(1, -5));
    for (const std::uint32_t session : {daq, splash, silent}) {
        EXPECT_EQ(criTerminate(session, 1), 1);
        EXPECT_EQ(criCommand(session, 3, 1000), 0);
    }
}

TEST_F(Libraries, LogCallsWithWhatBecameOfAStream) {
    std::uint32_t type = 0;
    (void)VEXA_GetDeviceTypeFromDeviceName("No\n\"such\"", &type);
    const auto refuse = [](const std::uint8_t* data, std::int32_t count, void* context) {
        return CollectBlock(data, count, context) - (*data == 1 ? 1 : 0);
    };
    const auto stream = VEXA_Device_Stream_Open(library, "Tilt", refuse, 3, &blocks);
    for (const Bytes& bytes : {Bytes{0}, Bytes{1}, Bytes{2}}) (void)Write(stream, bytes);
    (void)blocks.Await(3);
    (void)VEXA_Device_Stream_Close(stream);
    // Where an address has 32 bits, a sensor's context may as well be a number.
    const std::string context =
        sizeof &blocks > sizeof(std::uint32_t)
            ? "pointer"
            : std::to_string(reinterpret_cast<std::uintptr_t>(&blocks));  // NOLINT
    EXPECT_THAT(CallLogLines(),
                IsSupersetOf<std::string>(
                    {R"(VEXA_GetDeviceTypeFromDeviceName("No\x0A\"such\"") = -3)",
                     "VEXA_Device_Stream_Open(" + std::to_string(library) +
                         ", \"Tilt\", mode 3, context " + context + ") = " + std::to_string(stream),
                     "VEXA_Device_Stream_Close(" + std::to_string(stream) +
                         ") = 0  # \"Tilt\": 3 blocks out, 2 taken, 1 refused, 3 writes in"}));
}

TEST_F(Libraries, FailBlockOrAnswerLateInEachCall) {
    std::uint32_t word = 0;
    std::uint16_t number = 0;
    std::array<char, 220> name{};
    Answers answers;
    const auto snapshot = [&] { return VEXA_OpenDeviceListSnapshot(library, 8, &word, &word); };
    const auto session = [&] {
        std::uint32_t made = 0;
        return criInit("FGEN", 1, CollectAnswer, &answers, &made) == 1 ? made : 0;
    };
    const auto entry = [&] {
        return VEXA_DeviceListSnapshot_GetNthEntry(snapshot(), 0, name.data(), 220, &word);
    };
    const std::function<bool()> uses[] = {
        // In the order of kCalls.
        [] { return VEXA_Uninit(VEXA_Init()) == 0; },
        [] { return VEXA_Uninit(VEXA_Init()) == 0; },
        [&] { return VEXA_GetDLLVersion(library, &number, &number) == 0; },
        [&] { return VEXA_Diags_SetDebugTraceThreshold(library, 1) == 0; },
        [&] { return VEXA_GetDeviceTypeFromDeviceName("Quiet", &word) == 0; },
        [&] { return VEXA_SearchForDevices(library, 8, 1, 0, &word) == 0; },
        [&] { return snapshot() != 0; },
        [&] { return entry() == 0; },
        [&] { return VEXA_CloseDeviceListSnapshot(snapshot()) == 0; },
        [&] { return Open("Quiet") != 0; },
        [&] { return Write(Open("Quiet"), {1}) == 0; },
        [&] { return VEXA_Device_Stream_Close(Open("Quiet")) == 0; },
        [&] { return VEXA_Device_GetOpenDeviceName(Open("Quiet"), name.data(), 220) == 0; },
        [&] { return VEXA_Device_Open(library, "Quiet", 1) != 0; },
        [&] { return VEXA_Device_Close(VEXA_Device_Open(library, "Quiet", 1)) == 0; },
        [&] { return criTerminate(session(), 1) == 1; },
        [&] { return criCommand(session(), 4, 0) == 1; },
        [&] { return criTerminate(session(), 1) == 1; },
    };
    static_assert(std::size(uses) == static_cast<std::size_t>(Call::kNodeOpen));
    for (std::size_t index = 0; index < std::size(uses); ++index) {
        const std::string call(kCalls[index].name);
        const auto& works = uses[index];
        const std::string member = R"("call": ")" + call + "\", ";
        Ask("fault.set", member + R"("action": "fail", "skip": 1, "count": 1)");
        Ask("fault.set", member + R"("action": "block", "ms": 1)");
        Ask("fault.set", member + R"("action": "late", "ms": 1)");
        EXPECT_TRUE(works() && !works() && works()) << call;
        const auto faults = Ask("fault.list")["faults"];
        EXPECT_EQ(faults[0]["hits"], 1) << call;
        EXPECT_EQ(faults[1]["hits"], 3) << call;
        EXPECT_EQ(faults[2]["hits"], 3) << call;
        Ask("fault.clear");
    }
}

TEST_F(Libraries, HaveFaultsOnOneDevice) {
    Ask("fault.set", R"("call": "VEXA_Device_Stream_Write", "action": "fail", "for": "Tilt")");
    EXPECT_EQ(Write(Open("Quiet"), {1}), 0);
    EXPECT_NE(Write(Open("Tilt"), {1}), 0);
}

TEST_F(Libraries, SpoilWhatADeviceSendsIfAFaultSaysSo) {
    Ask("fault.set", R"("call": "data", "action": "corrupt", "count": 1)");
    Ask("fault.set", R"("call": "data", "action": "corrupt", "skip": 1, "count": 1, "offset": 0)");
    Ask("fault.set", R"("call": "data", "action": "oversize", "skip": 2, "count": 1, "bytes": 5)");
    const auto stream = Open("Quiet");
    for (int times = 0; times < 4; ++times) (void)Write(stream, {1, 2, 3});
    EXPECT_THAT(blocks.Await(4), ElementsAre(Bytes{1, 0xFD, 3}, Bytes{0xFE, 2, 3},
                                             Bytes{1, 2, 3, 1, 2}, Bytes{1, 2, 3}));
}

TEST_F(Libraries, LetADeviceSendWhileItsStreamIsBeingClosed) {
    Ask("fault.set", R"("call": "VEXA_Device_Stream_Close", "action": "data")");
    const auto stream = Open("Quiet");
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_EQ(blocks.Await(0).size(), 1U) << "it has come when the call returns";
}

}  // namespace
}  // namespace vexa::unit
