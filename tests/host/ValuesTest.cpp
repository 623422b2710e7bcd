// What vexa-host reads and shows: numbers, blocks, figures.
#include <gtest/gtest.h>

#include <cmath>

#include "host/FakeService.h"
#include "tool/Figures.h"
#include "tool/Parse.h"
#include "tool/Samples.h"
#include "tool/stream/LiveView.h"
#include "vexahost/DeviceFile.h"

namespace vexahost::tool {
namespace {

TEST(DeviceData, DecodesOnlyWhatIsWhole) {
    const Bytes block = Sealed({0xA0, 12, 0, 0, 0xE8, 3, 0, 0, 0xFF, 0xFF, 0x10, 0x27});
    EXPECT_EQ(DescribeBlock(block), "1.000 s: -1 10000");
    Bytes wrong = block;
    ++wrong[3];
    EXPECT_EQ(DescribeBlock(wrong), "a0 0c 00 " + ToHex(Part(wrong, 3, 12)));
    EXPECT_EQ(DescribeBlock(Part(block, 0, 11)), ToHex(Part(block, 0, 11)));
    const Bytes half = Sealed({0xA0, 9, 0, 0, 0, 0, 0, 0, 1});  // too short for one sample
    EXPECT_EQ(DescribeBlock(half), ToHex(half));
    EXPECT_EQ(DescribeBlock(Bytes{3, 2, 0xFE, 0xFF, 1, 0, 0, 0}), "0.001 s: -2");
    const auto formats = ParseDeviceFile(
        R"({"Probe": {"channels": [{"name": "x", "type": "u8", "offset": 0, "count": 2},
                                   {"name": "y", "type": "i8", "offset": 2, "scale": 0.001}]}})",
        "formats");
    EXPECT_EQ(DescribeBlock(Bytes{7, 8, 0xF7}, *formats, "Probe"), "x 7 8, y -0.009");
    EXPECT_EQ(DescribeBlock(Bytes{0x80, 2, 0, 0, 0, 0, 0, 0}), "80 02 00 00 00 00 00 00");
}

TEST(Figures, HoldEveryNumber) {
    RoundTrips trips;
    for (int i = 100; i >= 1; --i) trips.Add(std::chrono::milliseconds(i == 100 ? 5000 : i));
    EXPECT_EQ(trips.Percentile(0), 1);
    EXPECT_EQ(trips.Percentile(50), 50);
    EXPECT_EQ(trips.Percentile(99), 99);
    EXPECT_EQ(trips.Percentile(100), 5000);
    const auto lines = trips.Histogram(10);
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines[0], "      0.00 ms  ######### 9");
    EXPECT_EQ(lines[1], "     10.00 ms  ########## 10");
    EXPECT_EQ(lines[10], "    100.00 ms+ # 1");
    EXPECT_EQ(SparkLine({9, 0, 3.5, 7}, 3, false), "_-#");
    const Envelope::Clock::time_point now{std::chrono::seconds(100)};
    Envelope envelope;
    const int slots[][2] = {{0, 9}, {3, 3}, {6, 9}};  // the last one is 0.1 s ago
    for (int i = 0; i < 3; ++i) {
        for (const int value : slots[i]) envelope.Add(value, now + (i - 3) * Envelope::kSlot);
    }
    EXPECT_EQ(envelope.Draw(5, 4, now, false),
              (std::vector<std::string>{" | | ", " | | ", " ||  ", " |   "}));
    EXPECT_EQ(envelope.Draw(2, 1, now, true), std::vector<std::string>{"⡧⠃"});
    EXPECT_EQ(envelope.Range(3, now)->lowest, 3) << "of what is drawn";
    EXPECT_EQ(SparkLine({5, 5}, 9, false), "__");
    EXPECT_EQ(SparkLine({-1e308, 1e308, NAN, INFINITY}, 9, false).size(), 4U);
}

TEST(Numbers, AreWholeAndFit) {
    EXPECT_EQ(ParseNumber<std::uint8_t>("255"), 255);
    EXPECT_EQ(ParseNumber<std::uint32_t>("0xFFFFFFFF"), 0xFFFFFFFF);
    for (const char* wrong : {"", "256", "-1", "1 ", "0x", "0x1g"}) {
        EXPECT_FALSE(ParseNumber<std::uint8_t>(wrong)) << wrong;
    }
    EXPECT_EQ(ParseHex("0aFF:1b 2c"), (Bytes{0x0A, 0xFF, 0x1B, 0x2C}));
    for (const char* wrong : {"", " ", "1", "0a1", "0x1a", "1 2"}) EXPECT_FALSE(ParseHex(wrong));
    EXPECT_EQ(ParseDuration("3s"), std::chrono::seconds(3));
    EXPECT_EQ(ParseDuration("1.5"), std::chrono::milliseconds(1500));
    EXPECT_EQ(ParseDuration("250ms"), std::chrono::milliseconds(250));
    for (const char* wrong : {"", "s", "-1s", "0", "3d", "3 s", "nan", "inf", "1e99", "1001h"}) {
        EXPECT_FALSE(ParseDuration(wrong)) << wrong;
    }
}

}  // namespace
}  // namespace vexahost::tool
