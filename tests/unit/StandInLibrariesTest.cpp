// The stand-in libraries as the service calls them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

#include "VEXA.h"
#include "mux/Packet.h"
#include "unit/UnitUnderTest.h"
#include "vexcri.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;
using Blocks = Collected<Bytes>;

std::int32_t Collect(const std::uint8_t* data, std::int32_t count, void* context) {
    static_cast<Blocks*>(context)->Add({data, data + count});
    return 0;
}

std::int32_t Write(std::uint32_t stream, const Bytes& bytes) {
    return VEXA_Device_Stream_Write(stream, bytes.data(), static_cast<std::int32_t>(bytes.size()));
}

class StandInLibraries : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(library, 0U); }
    void TearDown() override { EXPECT_EQ(VEXA_Uninit(library), 0); }

    const std::uint32_t library = VEXA_Init();
};

TEST_F(StandInLibraries, ListsTheAttachedDevicesOfAType) {
    std::uint32_t type = 99;
    EXPECT_EQ(VEXA_GetDeviceTypeFromDeviceName("Gone", &type), 0);
    EXPECT_EQ(type, 8U);
    EXPECT_EQ(VEXA_GetDeviceTypeFromDeviceName("Board", &type), 0);
    EXPECT_EQ(type, 5U);
    EXPECT_NE(VEXA_GetDeviceTypeFromDeviceName("Nothing", &type), 0);
    EXPECT_EQ(type, 5U) << "an unknown name leaves the type alone";

    std::uint32_t count = 0;
    std::uint32_t word = 0;
    const auto list = VEXA_OpenDeviceListSnapshot(library, 8, &count, &word);
    ASSERT_NE(list, 0U);
    EXPECT_EQ(count, 2U);
    std::array<char, 220> name{};
    EXPECT_EQ(VEXA_DeviceListSnapshot_GetNthEntry(list, 1, name.data(), name.size(), &word), 0);
    EXPECT_STREQ(name.data(), "Quiet");
    EXPECT_EQ(VEXA_DeviceListSnapshot_GetNthEntry(list, 0, name.data(), 5, &word), 0);
    EXPECT_STREQ(name.data(), "Fast");
    EXPECT_NE(VEXA_DeviceListSnapshot_GetNthEntry(list, 0, name.data(), 4, &word), 0);
    EXPECT_NE(VEXA_DeviceListSnapshot_GetNthEntry(list, 2, name.data(), name.size(), &word), 0);
    EXPECT_EQ(VEXA_CloseDeviceListSnapshot(list), 0);
    EXPECT_NE(VEXA_CloseDeviceListSnapshot(list), 0);
    EXPECT_EQ(VEXA_OpenDeviceListSnapshot(0, 8, &count, &word), 0U);
    EXPECT_EQ(VEXA_Device_Stream_Open(library, "Gone", Collect, 3, nullptr), 0U);
    EXPECT_EQ(VEXA_Device_Open(library, "Gone", 1), 0U);
}

TEST_F(StandInLibraries, EachStreamHasItsOwnEcho) {
    Blocks first;
    Blocks second;
    const auto one = VEXA_Device_Stream_Open(library, "Quiet", Collect, 3, &first);
    const auto two = VEXA_Device_Stream_Open(library, "Quiet", Collect, 3, &second);
    EXPECT_EQ(Write(one, {}), 0);
    EXPECT_NE(VEXA_Device_Stream_Write(one, "x", -1), 0);
    EXPECT_NE(VEXA_Device_Stream_Write(one, nullptr, 1), 0);
    EXPECT_NE(Write(library, {1}), 0) << "not a stream";
    EXPECT_EQ(Write(one, {1, 2}), 0);
    EXPECT_EQ(Write(two, {3}), 0);
    EXPECT_EQ(Write(one, {4}), 0);
    EXPECT_THAT(first.Await(2), ElementsAre(Bytes{1, 2}, Bytes{4}));
    EXPECT_THAT(second.Await(1), ElementsAre(Bytes{3}));
}

TEST_F(StandInLibraries, NoCallbackRunsOnceItsStreamIsClosed) {
    Blocks blocks;
    const auto stream = VEXA_Device_Stream_Open(library, "Fast", Collect, 3, &blocks);
    (void)blocks.Await(3);
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    const auto count = blocks.Await(0).size();
    EXPECT_GE(count, 3U);
    Blocks others;
    (void)VEXA_Device_Stream_Open(library, "Fast", Collect, 3, &others);
    EXPECT_GE(others.Await(5).size(), 5U);
    EXPECT_EQ(blocks.Await(0).size(), count);
    EXPECT_NE(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_NE(Write(stream, {1}), 0);
}

TEST_F(StandInLibraries, ACallbackMayCloseItsOwnStream) {
    struct Closing {
        std::atomic<std::uint32_t> stream = 0;
        std::atomic<int> calls = 0;
        Collected<std::int32_t> results;
    } closing;
    const auto close = [](const std::uint8_t*, std::int32_t, void* context) -> std::int32_t {
        auto& self = *static_cast<Closing*>(context);
        ++self.calls;
        self.results.Add(VEXA_Device_Stream_Close(self.stream));
        return -1;
    };
    closing.stream = VEXA_Device_Stream_Open(library, "Quiet", close, 3, &closing);
    EXPECT_EQ(Write(closing.stream, {1}), 0);
    EXPECT_THAT(closing.results.Await(1), ElementsAre(0));
    EXPECT_NE(Write(closing.stream, {1}), 0);
    EXPECT_EQ(closing.calls, 1);
}

TEST_F(StandInLibraries, UninitEndsTheStreamsOfThatLibraryOnly) {
    Blocks mine;
    Blocks others;
    const auto other = VEXA_Init();
    const auto myStream = VEXA_Device_Stream_Open(library, "Quiet", Collect, 3, &mine);
    const auto otherStream = VEXA_Device_Stream_Open(other, "Quiet", Collect, 3, &others);
    EXPECT_EQ(VEXA_Uninit(other), 0);
    EXPECT_NE(VEXA_Uninit(other), 0);
    EXPECT_NE(Write(otherStream, {1}), 0);
    EXPECT_EQ(VEXA_Device_Stream_Open(other, "Quiet", Collect, 3, &others), 0U);
    EXPECT_EQ(Write(myStream, {2}), 0);
    EXPECT_THAT(mine.Await(1), ElementsAre(Bytes{2}));
}

TEST_F(StandInLibraries, TheBoardMeasuresAfterASync) {
    Blocks blocks;
    const auto stream = VEXA_Device_Stream_Open(library, "Board", Collect, 4, &blocks);
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    EXPECT_EQ(Write(stream, request), 0);
    const auto sent = blocks.Await(2);
    ASSERT_GE(sent.size(), 2U);
    EXPECT_EQ(sent[0].size(), kInitialSyncReplySize);
    EXPECT_EQ(sent[1].size(), 24U);
}

using Answers = Collected<std::pair<std::uint32_t, std::int32_t>>;

void CollectAnswer(void* context, std::uint32_t command, std::int32_t response) {
    static_cast<Answers*>(context)->Add({command, response});
}

TEST(StandInSessions, ApplicationsGiveTheHardwareUpAndTakeIt) {
    Answers answers;
    std::uint32_t daq = 0;
    ASSERT_EQ(criInit("DAQ", 1, CollectAnswer, &answers, &daq), 1);
    for (const std::uint32_t command : {3U, 2U, 3U, 1U, 3U, 4U}) {
        EXPECT_EQ(criCommand(daq, command, 1000), 1);
    }
    using Answer = std::pair<std::uint32_t, std::int32_t>;
    EXPECT_THAT(answers.Await(6), ElementsAre(Answer{3, 1}, Answer{2, 1}, Answer{3, 0},
                                              Answer{1, 1}, Answer{3, 1}, Answer{4, 1}));
    EXPECT_EQ(criTerminate(daq, 1), 1);
    EXPECT_EQ(criTerminate(daq, 1), 0);
    EXPECT_EQ(criCommand(daq, 3, 1000), 0);
}

TEST(StandInSessions, ApplicationsRefuseReplaceAnswersAndStaySilent) {
    Answers answers;
    std::uint32_t splash = 0;
    std::uint32_t generator = 0;
    std::uint32_t none = 0;
    ASSERT_EQ(criInit("SPLASH", 1, CollectAnswer, &answers, &splash), 1);
    ASSERT_EQ(criInit("FGEN", 1, CollectAnswer, &answers, &generator), 1);
    EXPECT_EQ(criInit("OTHER", 1, CollectAnswer, &answers, &none), 0);
    EXPECT_EQ(none, 0U);
    EXPECT_EQ(criCommand(generator, 4, 1000), 1);
    EXPECT_EQ(criCommand(splash, 2, 1000), 0);
    EXPECT_EQ(criCommand(splash, 3, 1000), 1);
    EXPECT_EQ(criCommand(splash, 1, 1000), 1);
    using Answer = std::pair<std::uint32_t, std::int32_t>;
    EXPECT_THAT(answers.Await(2), ElementsAre(Answer{3, 17}, Answer{1, -5}));
    EXPECT_EQ(criTerminate(generator, 1), 1);
    EXPECT_EQ(criTerminate(splash, 1), 1);
}

TEST(StandInSessions, ACallbackMayEndItsOwnSession) {
    struct Ending {
        std::atomic<std::uint32_t> session = 0;
        Collected<std::int32_t> results;
    } ending;
    std::uint32_t session = 0;
    const auto end = [](void* context, std::uint32_t, std::int32_t) {
        auto& self = *static_cast<Ending*>(context);
        self.results.Add(criTerminate(self.session, 1));
    };
    ASSERT_EQ(criInit("DAQ", 1, end, &ending, &session), 1);
    ending.session = session;
    EXPECT_EQ(criCommand(session, 3, 1000), 1);
    EXPECT_THAT(ending.results.Await(1), ElementsAre(1));
}

TEST(StandInJournal, HasALineForEachCall) {
    const auto before = JournalLines().size();
    Blocks blocks;
    Answers answers;
    const auto library = VEXA_Init();
    std::uint32_t type = 0;
    (void)VEXA_GetDeviceTypeFromDeviceName("No\n\"such\"", &type);
    const auto refuse = [](const std::uint8_t* data, std::int32_t count, void* context) {
        return Collect(data, count, context) - (*data == 1 ? 1 : 0);
    };
    // The context of a child is a number.
    const auto numbered =
        VEXA_Device_Stream_Open(library, "Quiet", Collect, 3, reinterpret_cast<void*>(4097));
    const auto stream = VEXA_Device_Stream_Open(library, "Tilt", refuse, 3, &blocks);
    for (const Bytes& bytes : {Bytes{0}, Bytes{1}, Bytes{2}}) (void)Write(stream, bytes);
    (void)blocks.Await(3);
    (void)VEXA_Device_Stream_Close(stream);
    (void)VEXA_Uninit(library);
    std::uint32_t session = 0;
    (void)criInit("DAQ", 1, CollectAnswer, &answers, &session);
    (void)criCommand(session, 4, 1000);
    (void)answers.Await(1);
    (void)criTerminate(session, 1);

    auto lines = JournalLines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    // The answer may overtake the line of its command.
    const auto command = std::ranges::find(lines, "criCommand(\"DAQ\", 4, 1000) = 1");
    ASSERT_NE(command, lines.end());
    lines.erase(command);
    const auto id = [](std::uint32_t handle) { return std::to_string(handle); };
    EXPECT_THAT(lines,
                ElementsAre("VEXA_Init() = " + id(library),
                            R"(VEXA_GetDeviceTypeFromDeviceName("No\x0A\"such\"") = -3)",
                            "VEXA_Device_Stream_Open(" + id(library) +
                                ", \"Quiet\", mode 3, context 4097) = " + id(numbered),
                            "VEXA_Device_Stream_Open(" + id(library) +
                                ", \"Tilt\", mode 3, context pointer) = " + id(stream),
                            "VEXA_Device_Stream_Close(" + id(stream) +
                                ") = 0  # \"Tilt\": 3 blocks out, 2 taken, 1 refused, "
                                "3 writes in",
                            "VEXA_Uninit(" + id(library) + ") = 0", "criInit(\"DAQ\", 1) = 1",
                            "criAnswer(\"DAQ\", 4, 1)", "criTerminate(\"DAQ\", 1) = 1"));
}

}  // namespace
}  // namespace vexa::unit
