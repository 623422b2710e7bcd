// Where samples stand in blocks, and their times.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>

#include "host/FakeService.h"
#include "vexahost/DeviceFile.h"
#include "vexahost/Samples.h"

namespace vexahost {
namespace {

using testing::HasSubstr;

std::vector<double> Decoded(const ChannelFormat& channel, const Bytes& block) {
    std::vector<double> values;
    channel.Decode(block, values);
    return values;
}

TEST(SampleFormat, FindsTheSamplesOfEachType) {
    const Bytes block = Hex("80 ff 01 02 3f 80 00 00 00 00 80 3f cd cc cc 3d") +
                        Hex("18 2d 44 54 fb 21 09 40 40 09 21 fb 54 44 2d 18");
    const std::pair<const char*, std::vector<double>> cases[] = {
        {"u8@0x2", {128, 255}},    {"i8@0x2", {-128, -1}},
        {"s16le@0", {-128}},       {"i16be@0", {-32513}},
        {"u16be@2", {0x102}},      {"u32le@0", {0x0201FF80}},
        {"u32be@0", {0x80FF0102}}, {"i32be@0", {-2130771710}},
        {"f32be@4", {1}},          {"f32le@8x2", {1, 0.1}},
        {"f64le@16", {M_PI}},      {"f64be@24", {M_PI}},
        {"u16be@30x9", {0x2D18}},  {"u8@32", {}},
        {"u16le@31", {}},          {"u16le@0", {0xFF80}}};
    for (const auto& [text, values] : cases) {
        const auto format = ParseChannelFormat(text);
        ASSERT_TRUE(format) << text;
        EXPECT_EQ(Decoded(format->second, block), values) << text;
    }
    for (const char* wrong : {"", "u8", "@1", "u8@", "u8@-1", "u8@255", "u8@1x0", "u8@1x256",
                              "u8@1x", "u64le@0", "U8@0", ":u8@0", "=u8@0", "u8@0 ", "f16le@0"}) {
        EXPECT_FALSE(ParseChannelFormat(wrong)) << wrong;
    }
}

TEST(DeviceFile, OfTheVirtualUnitIsWhatIsBuiltIn) {
    const auto formats = ReadDeviceFile(VEXA_DEVICE_FILE);
    ASSERT_TRUE(formats) << formats.error().message;
    EXPECT_EQ(formats->Entries(), DeviceFormats::BuiltIn().Entries());
}

TEST(DeviceFile, SaysWhereItIsWrong) {
    const std::string x = R"({"name": "x", "type": "i16be", "offset": 0, "stride": 4, "scale": 2})";
    const auto formats =
        ParseDeviceFile(R"({"$schema": "s", "A": {"rate": 5, "channels": [)" + x + "]}}", "file");
    ASSERT_TRUE(formats) << formats.error().message;
    const auto& [name, format] = formats->Entries().front();
    EXPECT_EQ(name, "A");
    EXPECT_EQ(format.rate, 5);
    EXPECT_EQ(Decoded(format.channels[0], Hex("00 01 00 00 ff fe 00")),
              (std::vector<double>{2, -4}));
    const std::pair<std::string, const char*> cases[] = {
        {"{", "file: line 1 is not JSON"},
        {"[]", "file: expected an object"},
        {R"({"A": {"rate": 1e999}})", "file: number overflow"},
        {R"({"A": 5})", "file: A: expected an object"},
        {R"({"A": {}})", "file: A: \"channels\" is missing"},
        {R"({"A": {"channels": []}})", "file: A: \"channels\": expected a list of at least one"},
        {R"({"A": {"channels": [{"name": "x"}]}})", "file: A: channel x: \"type\" is missing"},
        {R"({"A": {"channels": [{}]}})", "file: A: channel 1: \"name\" is missing"},
        {R"({"A": {"channels": [{"name": "x", "type": "i17le", "offset": 0}]}})",
         "file: A: channel x: \"type\": expected u8, i8, "},
        {R"({"A": {"channels": [{"name": "x", "type": "u8", "offset": 255}]}})",
         "file: A: channel x: \"offset\": expected a whole number from 0 to 254"},
        {R"({"A": {"channels": [)" + x + "," + x + "]}}", "channel x: there are two of this name"},
        {R"({"A": {"chanels": [], "channels": [)" + x + "]}}", "A: no such key: \"chanels\""},
        {R"({"A": {"rate": 0, "channels": [)" + x + "]}}",
         "A: \"rate\": expected a number above 0"},
        {R"({"A": {"check": "", "channels": [)" + x + "]}}", "A: \"check\": expected packet or"},
        {R"({"A": {"time": {"type": "u8", "offset": 0}, "channels": [)" + x + "]}}",
         "A: \"time\": \"unit\" is missing"},
    };
    for (const auto& [text, fault] : cases) {
        const auto wrong = ParseDeviceFile(text, "file");
        ASSERT_FALSE(wrong) << text;
        EXPECT_THAT(wrong.error().message, HasSubstr(fault));
    }
}

// "-" is nothing.
std::optional<double> Number(const std::string& text) {
    return text == "-" ? std::nullopt : std::optional(std::stod(text));
}

// The table is the Python module's as well.
TEST(SampleClock, GivesTheTimesOfTheTable) {
    std::ifstream table(VEXA_SAMPLE_TIMES);
    std::optional<SampleClock> clock;
    std::string name;
    int blocks = 0;
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string word;
        fields >> word;
        if (word == "#") continue;
        if (word == "clock") {
            std::string opened, rate, type;
            fields >> name >> opened >> rate >> type;
            SampleClock::Options options{std::stod(opened), Number(rate)};
            if (type != "-") {
                const TimeFormat format{*SampleType::Parse(type), 0, 0.001};
                options.tick = format.tick;
                options.wrap = format.Wrap();
            }
            clock.emplace(options);
            continue;
        }
        std::string arrival, device, count, first, step;
        fields >> arrival >> device >> count >> first >> step;
        auto own = Number(device);
        if (own) *own *= 0.001;
        const auto times = clock->Place(static_cast<std::uint8_t>(std::stoi(word)),
                                        std::stod(arrival), own, std::stoul(count));
        ASSERT_NEAR(times.first, std::stod(first), 2e-9) << name << ": " << line;
        ASSERT_NEAR(times.step, std::stod(step), 1e-11) << name << ": " << line;
        ++blocks;
    }
    EXPECT_GT(blocks, 800);
}

// What stood still for a while: blocks that come at once after it do not move the times, neither
// when they were held up on their way nor when the device makes up for it and says so.
TEST(SampleClock, TellsAGapFromWhatWasHeldUp) {
    SampleClock clock({10, {}, 0.001, 4294967.296});
    double stood = 0;
    std::vector<int> gaps;
    for (int i = 1; i <= 250; ++i) {
        if (i == 30) stood += 1.6;
        if (i == 200) stood += 400;
        const double end = i * 0.1 + stood;
        const bool isOnItsWay = i >= 80 && i < 100;
        const bool isMadeUpFor = i >= 140 && i < 160;
        const double came = isOnItsWay ? 9.9 + stood : isMadeUpFor ? 15.9 + stood : end;
        const auto times =
            clock.Place(static_cast<std::uint8_t>(i), 10.01 + came, isMadeUpFor ? came : end, 10);
        EXPECT_LT(times.step, 0.02) << "block " << i;
        if (times.afterGap) gaps.push_back(i);
        // That the device has stood still is sure after half a second.
        if ((i >= 30 && i < 35) || (i >= 200 && i < 205)) continue;
        EXPECT_NEAR(times.first + 9 * times.step, 10 + end, 0.1) << "block " << i;
    }
    EXPECT_THAT(gaps, testing::ElementsAre(35, 205));
}

// Ten minutes of 50 blocks of 32 samples a second. The unit sends what it has every 30.3 ms, one
// block in a hundred is late, and the device's milliseconds are whole.
struct ClockCase {
    const char* name;
    bool hasOwnTime;
    double partsPerMillion;  // by which the device's clock is slow
    std::optional<double> stated;
    int lostOf1000;    // blocks
    double meanError;  // milliseconds, at most
    double mostError;  // after the first half minute
    double bias;       // in every minute after it; by how much it drifts is less
};

void PrintTo(const ClockCase& each, std::ostream* out) { *out << each.name; }

class SampleTimesTest : public testing::TestWithParam<ClockCase> {};

TEST_P(SampleTimesTest, StayWithTheTruth) {
    const ClockCase& wanted = GetParam();
    constexpr double kRate = 1600;
    constexpr int kSamples = 32;
    constexpr int kBlocks = 50 * 600;
    constexpr double kOpened = 10;
    std::mt19937 random(7);
    const auto chance = [&random] { return static_cast<double>(random()) / 4294967296.0; };
    SampleClock::Options options{kOpened, wanted.stated};
    if (wanted.hasOwnTime) options = {kOpened, wanted.stated, 0.001, 4294967.296};
    SampleClock clock(options);
    double last = 0;
    double sum = 0;
    double most = 0;
    int counted = 0;
    std::vector<double> perMinute(10);
    for (int i = 1; i <= kBlocks; ++i) {
        const double device = i * kSamples / kRate;
        const double sent = device + (chance() < 0.01 ? 0.02 : 0.0003) * chance();
        const double drift = 1 + wanted.partsPerMillion * 1e-6;
        const double arrival =
            std::ceil((kOpened + sent * drift) / 0.0303) * 0.0303 + 5e-4 * chance();
        if (chance() * 1000 < wanted.lostOf1000) continue;
        const auto own = wanted.hasOwnTime ? std::optional(std::floor(sent * 1000) / 1000)
                                           : std::optional<double>{};
        const auto times = clock.Place(static_cast<std::uint8_t>(i), arrival, own, kSamples);
        ASSERT_GT(times.first, last) << "block " << i;
        ASSERT_GT(times.step, 0);
        last = times.first + times.step * (kSamples - 1);
        const double error = (last - (kOpened + device * drift)) * 1000;
        sum += std::fabs(error);
        ++counted;
        perMinute[static_cast<std::size_t>((i - 1) * 10 / kBlocks)] += error * 10 / kBlocks;
        if (i > 1500) most = std::max(most, std::fabs(error));
    }
    EXPECT_LT(sum / counted, wanted.meanError);
    EXPECT_LT(most, wanted.mostError);
    for (std::size_t i = 1; i < perMinute.size(); ++i) {
        EXPECT_NEAR(perMinute[i], wanted.hasOwnTime ? 0 : 15.5, wanted.bias) << "minute " << i;
    }
    EXPECT_NEAR(*clock.Rate(), kRate, 0.3);
}

INSTANTIATE_TEST_SUITE_P(
    Clocks, SampleTimesTest,
    testing::Values(ClockCase{"OfItsOwn", true, 0, {}, 0, 0.5, 1, 0.6},
                    ClockCase{"OfItsOwnSlow", true, 100, {}, 0, 0.6, 1.5, 0.8},
                    ClockCase{"OfItsOwnFast", true, -100, 1600, 0, 0.6, 1.5, 0.8},
                    ClockCase{"OfItsOwnAndLosses", true, 0, {}, 10, 0.8, 5, 0.8},
                    ClockCase{"OfArrival", false, 0, {}, 0, 20, 30, 1},
                    ClockCase{"OfArrivalStatedFarOff", false, 100, 100, 0, 20, 30, 1}),
    [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace vexahost
