#include <gtest/gtest.h>

#include "foundation/GUtils.h"
#include "foundation/HexDump.h"
#include "support/Output.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

TEST(Trace, WritesThePrefixOnlyWithAFileAndALine) {
    struct Case {
        const char* file;
        int line;
        std::string expected;
    };
    for (const Case& c : {Case{"GThread_Linux", 118, "GThread_Linux(118) : x%d\n"},
                          {"Module", 0, "Module(0) : x%d\n"},
                          {"Module", -2, "Module(-2) : x%d\n"},
                          {"Module", -1, "x%d\n"},
                          {"", 5, "x%d\n"},
                          {nullptr, 5, "x%d\n"}}) {
        EXPECT_EQ(Printed([&] { Trace("x%d", c.file, c.line); }), c.expected);
    }
    const int value = 0;
    EXPECT_EQ(Traced([&] { Trace(static_cast<const void*>(&value), "M", 1); }), "M(1) : 0xN\n");
}

TEST(Trace, PrintsLevelsFromTheThresholdOn) {
    const void* const nothing = nullptr;
    const auto atLevel = [&](int level) {
        return Printed([&] {
            Trace(level, "text", "M", 1);
            Trace(level, std::string("string"), "M", 1);
            Trace(level, nothing, "M", 1);
        });
    };
    EXPECT_EQ(atLevel(99), "") << "threshold 100 at first";
    SetTraceThreshold(kTraceLevel);
    EXPECT_EQ(atLevel(kTraceLevel), "M(1) : text\nM(1) : string\nM(1) : 0\n");
    EXPECT_EQ(atLevel(kTraceLevel - 1), "");
    SetTraceThreshold(100);
}

TEST(OSAssert, PrintsOnlyWhenTheConditionFails) {
    EXPECT_EQ(Printed([] { EXPECT_EQ(OSAssert(0, "GThread", 99), 0); }), "GThread Line: 99\n");
    EXPECT_EQ(Printed([] { EXPECT_EQ(OSAssert(5, "GThread", 99), 5); }), "");
}

TEST(HexDump, TruncatesTheCountToSigned16Bit) {
    const std::vector<unsigned char> bytes(32767, 0xA5);
    const auto dump = [&](int count, const std::string& title = "Title") {
        return Printed([&] { HexDump(title.c_str(), "TAG", bytes.data(), count); });
    };
    EXPECT_EQ(dump(2), "Title - TAG: a5 a5\n");
    EXPECT_EQ(dump(0), "Title - TAG:\n");
    EXPECT_EQ(dump(0x8003), "Title - TAG:\n");
    EXPECT_EQ(dump(0x10002), "Title - TAG: a5 a5\n");
    EXPECT_EQ(dump(32767).size(), 12 + 3 * 32767 + 1U);
    EXPECT_TRUE(dump(1, std::string(300, 'x')).ends_with("xxx a5\n")) << "a title that is cut";
}

TEST(Clock, CountsMillisecondsAndWrapsAt32Bits) {
    const VirtualTime time(VirtualTime::kHurried, (1ULL << 32U) - 2);
    EXPECT_EQ(OSGetMilliseconds(), 0xFFFFFFFEU);
    OSSleep(3);
    EXPECT_EQ(OSGetMilliseconds(), 1U);
    OSSleep(999);
    EXPECT_EQ(OSGetMilliseconds(), 1000U);
    OSSleep(4'294'968);  // its microseconds wrap at 32 bits
    EXPECT_EQ(VirtualTime::TakeSleeps(), (std::vector<std::int64_t>{3000, 999'000, 704}));
}

TEST(BytePacking, PutsTheFirstByteLowest) {
    std::uint8_t b[8] = {};
    ASSERT_TRUE(
        OSSplit64(0x0807060504030201, &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &b[6], &b[7]));
    for (int i = 0; i < 8; ++i) EXPECT_EQ(b[i], i + 1);
    ASSERT_TRUE(OSSplit32(0x84030207, &b[0], &b[1], &b[2], &b[3]));
    EXPECT_EQ(b[0] + b[3], 0x07 + 0x84);
    std::uint32_t value32 = 0;
    std::uint64_t value64 = 0;
    ASSERT_TRUE(OSPack32(1, 2, 3, 0x84, &value32));
    ASSERT_TRUE(OSPack64(1, 2, 3, 4, 5, 6, 7, 0x88, &value64));
    EXPECT_EQ(value32, 0x84030201U);
    EXPECT_EQ(value64, 0x8807060504030201U);

    b[0] = 77;
    EXPECT_FALSE(OSSplit32Second(1, &b[0], nullptr, &b[2], &b[3]));
    EXPECT_EQ(b[0], 77) << "nothing is written when one of the pointers is null";
    EXPECT_FALSE(OSPack32Second(1, 2, 3, 4, nullptr));
}

}  // namespace
}  // namespace vexa
