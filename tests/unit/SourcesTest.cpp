// Sources of devices' data, by themselves: files, serial lines (pseudo terminals), and programs as
// applications.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "model/ApplicationProgram.h"
#include "protocol/Packet.h"
#include "sources/HidrawSource.h"
#include "sources/IioModule.h"
#include "sources/Samples.h"
#include "sources/SourceDevice.h"
#include "testkit/ChildProcess.h"
#include "unit/UnitUnderTest.h"

namespace vexa::unit {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A source in use, with what it sends and tells.
class Reader {
  public:
    explicit Reader(const SourceSettings& settings, const std::string& name = "Device")
        : device(std::make_shared<SourceDevice>(name, [=] { return MakeSource(settings, name); })) {
        ::testing::internal::CaptureStderr();
        receiver = device->Join({[this](std::span<const std::uint8_t> block) {
                                     blocks.Add({block.begin(), block.end()});
                                 },
                                 [this] { unplugged = true; }});
    }
    // What it told.
    std::string End() {
        device->Leave(receiver);
        EXPECT_TRUE(device->AwaitEnd(std::chrono::seconds(30)));
        return ::testing::internal::GetCapturedStderr();
    }
    // What it told when it could not go on.
    std::string Failure() {
        EXPECT_TRUE(Eventually([&] { return unplugged.load(); }));
        return End();
    }

    Collected<Bytes> blocks;
    std::atomic<bool> unplugged{false};
    std::shared_ptr<SourceDevice> device;

  private:
    std::uint32_t receiver = 0;
};

class Sources : public ::testing::Test {
  protected:
    Sources() { fs::create_directory(folder); }
    ~Sources() override { fs::remove_all(folder); }

    [[nodiscard]] SourceSettings Table(const std::string& text) const {
        SourceSettings settings;
        settings.file = folder / "table.csv";
        std::ofstream(settings.file) << text;
        settings.rate = 1000;
        return settings;
    }

    const fs::path folder =
        fs::path(::testing::TempDir()) / ("sources-" + std::to_string(::getpid()));
};

// The samples of a block, of the type that it has.
template <typename Sample>
std::vector<Sample> SamplesOf(const Bytes& block) {
    EXPECT_TRUE(HasRightChecksum(block));
    std::vector<Sample> samples((block.size() - SampleBlocks::kHeader) / sizeof(Sample));
    std::memcpy(samples.data(), &block[SampleBlocks::kHeader], samples.size() * sizeof(Sample));
    return samples;
}

TEST_F(Sources, ATablePlaysItsColumnsInBlocks) {
    auto whole = Table(
        "# start\r\nepoch_s,\"x, left\",note,y\r\n5,1,a,-2\r\n# gap\r\n5.001,-32767,b,4\r\n\r\n");
    whole.rate = 0;
    Reader reader(whole);
    const auto blocks = reader.blocks.Await(1);
    EXPECT_THAT(SamplesOf<std::int16_t>(blocks[0]), ElementsAre(1, -2, -32767, 4));
    EXPECT_FALSE(reader.unplugged) << "it stays at its end, silent";
    EXPECT_EQ(reader.End(), "");

    auto chosen = Table("a,b\n0.5,1\n-2,2\n");
    chosen.channels = {"a"};
    chosen.repeat = true;
    Reader repeating(chosen);
    const auto floats = SamplesOf<float>(repeating.blocks.Await(2)[1]);
    EXPECT_EQ(floats.size(), 50U) << "a twentieth of a second";
    EXPECT_THAT((std::vector{floats[0], floats[1], floats[2]}), ElementsAre(0.5F, -2.0F, 0.5F));
    const auto two = repeating.blocks.Now();
    EXPECT_EQ(two[1][kSequenceOffset], 1);
    EXPECT_GE(LoadLe32(two[1], 4), 90U) << "at its pace: the hundredth row, a millisecond each";
    EXPECT_EQ(repeating.End(), "");
}

TEST_F(Sources, ARecordingPlaysOneDevice) {
    SourceSettings settings;
    settings.file = CAPTURES "/whole-session.pcapng";
    settings.speed = 1000;
    settings.repeat = true;
    Reader reader(settings, "Stream");
    EXPECT_THAT(reader.blocks.Await(2), ::testing::Each(Bytes{1, 2, 3}));
    EXPECT_EQ(reader.End(), "");
    settings.child = "Nobody";
    EXPECT_THAT(Reader(settings).Failure(),
                HasSubstr("has nothing of \"Nobody\"; there are Stream, Camera\n"));
}

TEST_F(Sources, WhatCannotBeReadIsSaid) {
    std::ofstream(folder / "none.pcapng") << "something else entirely";
    SourceSettings recording;
    recording.file = folder / "none.pcapng";
    SourceSettings noLine;
    noLine.serial = folder / "none.pcapng";
    SourceSettings noFile;
    noFile.serial = folder / "none";
    SourceSettings noPad;
    noPad.hidraw = "ffff:ffff";
    SourceSettings odd;
    odd.hidraw = "/dev/null";
    SourceSettings noSensor;
    noSensor.iio = "no-such-sensor";
    auto noColumn = Table("a,b\n1,2\n");
    noColumn.channels = {"c"};
    const std::pair<SourceSettings, const char*> cases[] = {
        {recording, "none.pcapng is no recording of a session"},
        {noLine, "none.pcapng is not a serial line"},
        {noFile, "none: No such file or directory"},
        {noPad, "Device: no HID device ffff:ffff; there "},
        {odd, "/dev/null is not a HID device"},
        {noSensor, "Device: no IIO device no-such-sensor; there "},
        {noColumn, "no column \"c\"; there are a, b"},
    };
    for (const auto& [settings, complaint] : cases) {
        EXPECT_THAT(Reader(settings).Failure(), HasSubstr(complaint));
    }
    EXPECT_THAT(Reader(Table("a\n1\nx\n")).Failure(),
                HasSubstr("line 3, column 1 is not a number"));
    EXPECT_THAT(Reader(Table("a\nx\n")).Failure(), HasSubstr("no column of numbers"));
    auto timed = Table("time_s,a\n5,1\n6,1\n5,1\n");
    timed.rate = 0;
    EXPECT_THAT(Reader(timed).Failure(), HasSubstr("line 4: the time goes back"));
}

// Both ends of a serial line.
struct Line {
    Line() {
        std::array<char, 256> name{};
        int ends[2];
        EXPECT_EQ(::openpty(&ends[0], &ends[1], name.data(), nullptr, nullptr), 0);
        instrument = Descriptor(ends[0]);
        held = Descriptor(ends[1]);
        termios mode{};
        ::tcgetattr(held.Get(), &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(held.Get(), TCSANOW, &mode);
        settings.serial = name.data();
    }
    void Say(const std::string& text) const {
        EXPECT_EQ(::write(instrument.Get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // The line is open: its rate has been set.
    [[nodiscard]] bool AwaitSpeed(speed_t speed) const {
        return Eventually([&] {
            termios mode{};
            ::tcgetattr(instrument.Get(), &mode);
            return ::cfgetospeed(&mode) == speed;
        });
    }

    Descriptor instrument;
    Descriptor held;  // so that its end is no hang-up before the source opens it
    SourceSettings settings;
};

Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

TEST_F(Sources, ASerialLineIsCutIntoBlocksAndWrittenTo) {
    Line line;
    line.settings.baud = 9600;
    line.settings.parity = Parity::kOdd;
    line.settings.delimiter = "\r\n";
    line.settings.gapMs = 500;
    Reader reader(line.settings);
    ASSERT_TRUE(line.AwaitSpeed(B9600));
    termios mode{};
    ::tcgetattr(line.instrument.Get(), &mode);
    EXPECT_NE(mode.c_cflag & PARODD, 0U);  // of the two flags the one that such a line keeps
    line.Say("$A\r\n$B");
    line.Say("\r\n" + std::string(250, 'x'));  // the last five at the pause
    EXPECT_THAT(reader.blocks.Await(4),
                ElementsAre(BytesOf("$A\r\n"), BytesOf("$B\r\n"), Bytes(245, 'x'), Bytes(5, 'x')));
    EXPECT_TRUE(reader.device->Write(BytesOf("over")));
    std::array<char, 4> heard{};
    EXPECT_EQ(::read(line.instrument.Get(), heard.data(), heard.size()), 4);
    EXPECT_EQ(std::string(heard.data(), heard.size()), "over");
    EXPECT_EQ(reader.End(), "");

    // It goes away, and is read again in the next use.
    line.settings.baud = 57600;
    Reader second(line.settings);
    ASSERT_TRUE(line.AwaitSpeed(B57600));
    line.Say("x\r\n");
    (void)second.blocks.Await(1);
    line.instrument.Close();
    EXPECT_THAT(second.Failure(), HasSubstr("vexa-unit: Device: " + line.settings.serial));
    EXPECT_FALSE(second.device->Write(BytesOf("lost")));
}

// A source whose driver does not come back.
class HangingSource final : public Source {
  public:
    explicit HangingSource(std::atomic<bool>& returns_) : returns(returns_) {}
    void Run(SourceLine& line) override {
        line.Pass(Bytes{1});
        EXPECT_TRUE(Eventually([&] { return returns.load(); }));
    }

  private:
    std::atomic<bool>& returns;
};

TEST_F(Sources, AHangingDriverHoldsUpNothingButItsDevice) {
    static std::atomic<bool> returns{false};
    static std::atomic<int> uses{0};
    const auto device = std::make_shared<SourceDevice>("Hanging", [] {
        ++uses;
        return std::make_unique<HangingSource>(returns);
    });
    Collected<Bytes> one;
    Collected<Bytes> two;
    const auto receive = [](Collected<Bytes>& blocks) {
        return SourceReceiver{[&](std::span<const std::uint8_t> block) {
                                  blocks.Add({block.begin(), block.end()});
                              },
                              [] {}};
    };
    const auto first = device->Join(receive(one));
    (void)one.Await(1);
    device->Leave(first);  // returns, whatever the driver does
    EXPECT_FALSE(device->AwaitEnd(std::chrono::milliseconds(1)));
    const auto second = device->Join(receive(two));
    EXPECT_EQ(uses, 1) << "the second use waits for the first";
    returns = true;
    (void)two.Await(1);
    device->Leave(second);
    EXPECT_TRUE(device->AwaitEnd(std::chrono::seconds(30)));
    EXPECT_EQ(one.Now().size(), 1U);
}

TEST(Hidraw, ReportsAreNumberedWhereTheDescriptorSaysSo) {
    EXPECT_FALSE(NumbersReports(Bytes{0x05, 0x85, 0x27, 0x85, 0x01, 0x85, 0x01, 0xC0}));
    EXPECT_FALSE(NumbersReports(Bytes{0xFE, 0x02, 0x10, 0x85, 0x01, 0xC0}));
    EXPECT_TRUE(NumbersReports(Bytes{0x05, 0x01, 0xA1, 0x01, 0x85, 0x03}));
    EXPECT_FALSE(NumbersReports(Bytes{0xFE}));
}

TEST(Programs, AnswerByTheirExitAndAreEndedAtTheirLimit) {
    std::atomic<bool> never{false};
    std::atomic<bool> cancelled{true};
    const fs::path marked =
        fs::path(::testing::TempDir()) / ("child-" + std::to_string(::getpid()));
    const std::string inGroup = "sleep 1000 & echo $! >" + marked.string() + "; wait";
    struct Case {
        std::vector<std::string> words;
        std::uint32_t timeoutMs;
        std::atomic<bool>& isCancelled;
        std::int32_t response;
        const char* told;
    };
    const Case cases[] = {
        {{"true"}, 30000, never, 1, ""},
        {{"sh", "-c", "echo one; echo two >&2; exit 3"},
         30000,
         never,
         0,
         "vexa-unit: DAQ: one\nvexa-unit: DAQ: two\n"},
        {{"sh", "-c", "kill -9 $$"}, 30000, never, 0, ""},
        {{"/no/such/program"}, 30000, never, 0, "vexa-unit: DAQ: cannot start /no/such/program"},
        {{"echo", "a b; exit 7"}, 30000, never, 1, "a b; exit 7\n"},  // no shell reads it
        {{"sh", "-c", "test -z \"$LD_PRELOAD$VEXA_UNIT_DIR\""}, 30000, never, 1, ""},
        {{"sh", "-c", inGroup}, 1500, never, -1, "sh has not ended within 1500 ms; it is ended\n"},
        {{"sleep", "1000"}, 30000, cancelled, -1, "runs while its session ends; it is ended\n"},
    };
    ::setenv("VEXA_UNIT_DIR", "/unit", 1);
    for (const auto& [words, timeoutMs, isCancelled, response, told] : cases) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(RunApplication("DAQ", words, timeoutMs, isCancelled), response) << words.back();
        EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr(told));
    }
    ::unsetenv("VEXA_UNIT_DIR");
    int child = 0;
    std::ifstream(marked) >> child;
    ASSERT_GT(child, 0);
    // What the program started has ended with it, though this process may not be its parent.
    const std::string process = "/proc/" + std::to_string(child) + "/exe";
    EXPECT_TRUE(Eventually([&] {
        std::error_code error;
        return fs::read_symlink(process, error).empty();  // a dead one has none
    }));
    fs::remove(marked);
}

// A program that prints without end must not fill the unit's memory.
TEST(ApplicationProgram, ItsOutputIsKeptUpToABound) {
    testkit::ChildProcess program({.command = {"seq", "10000"}, .keptOutput = 1000});
    testkit::OutputLog& log = program.Log();
    ASSERT_TRUE(log.WaitForEnd(std::chrono::seconds(30)));
    const std::string kept = log.Text();
    EXPECT_THAT(kept, ::testing::EndsWith("\n9999\n10000\n"));
    EXPECT_TRUE(kept.size() >= 1000 && kept.size() < 2000) << kept.size();
    constexpr std::size_t kAll = 9 + 90 * 2 + 900 * 3 + 9000 * 4 + 5 + 10000;
    EXPECT_EQ(log.WaitFor("10000\n", std::chrono::seconds(0), 7), kAll);  // a position in all of it
    EXPECT_EQ(log.TakeLines().front(),
              "(" + std::to_string(kAll - kept.size()) + " bytes left out)");
}

}  // namespace
}  // namespace vexa::unit
