// The captures of this folder: what vexa-host and the dissector say of each, line by line, and how
// damaged ones are read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "testkit/ChildProcess.h"
#include "vexahost/Describe.h"
#include "vexahost/Recording.h"

namespace vexahost {
namespace {

constexpr const char* kNames[] = {"whole-session", "faults", "split-packets"};

using Capture = std::vector<std::uint8_t>;

std::string PathOf(const std::string& name) { return VEXA_CAPTURES "/" + name; }

Capture Load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// How the output of a command differs from a text of this folder.
std::string Difference(const std::string& command, const std::string& text) {
    return vexa::testkit::RunShell(command + " 2>/dev/null | diff " + PathOf(text) + " - 2>&1")
        .output;
}

bool CanDissect() { return std::system("tshark --version >/dev/null 2>&1") == 0; }

constexpr const char* kNotDissected = "tshark is not installed: the captures were not dissected";

constexpr const char* kDissection =
    "tshark -X lua_script:" VEXA_DISSECTOR
    " -T fields"
    " -E 'separator=|' -e frame.number -e _ws.col.Info -e vexa.command -e vexa.error"
    " -e vexa.child -e vexa.checksum.right -e vexa.expert.lost -e vexa.expert.checksum -r ";

TEST(Captures, AreDecodedAndDissectedAsTheirTextsSayAlsoWhenWrittenAnew) {
    const bool dissected = CanDissect();
    const std::string copy = testing::TempDir() + "rewritten.pcapng";
    for (const std::string name : kNames) {
        const std::string original = PathOf(name) + ".pcapng";
        const Capture capture = Load(original);
        PcapngReader reader(capture);
        {
            auto writer = PcapngWriter::Create(copy);
            ASSERT_TRUE(writer);
            while (const auto frame = reader.Next()) ASSERT_TRUE(writer->Add(*frame));
        }
        for (const std::string& file : {original, copy}) {
            EXPECT_EQ(Difference(VEXA_HOST_PROGRAM " decode " + file, name + ".decoded.txt"), "");
        }
        EXPECT_EQ(dissected ? Difference(kDissection + original, name + ".tshark.txt") : "", "");
        // The third is in another byte order, with other blocks.
        EXPECT_EQ(Load(copy) == capture, name != kNames[2]) << name;
    }
    std::filesystem::remove(copy);
    if (!dissected) GTEST_SKIP() << kNotDissected;
}

TEST(Captures, OfTheUsbBusAreDecodedAsTheirTextsSay) {
    const std::pair<const char*, const char*> buses[] = {{"bus-session", "bus-session"},
                                                         {"bus-split-usbmon", "bus-split"},
                                                         {"bus-split-usbpcap", "bus-split"}};
    const bool converts = std::system("editcap --version >/dev/null 2>&1") == 0;
    const std::string copy = testing::TempDir() + "bus.pcapng";
    for (const auto& [capture, text] : buses) {
        const std::string file = PathOf(capture) + ".pcap";
        const std::string decode = VEXA_HOST_PROGRAM " decode ";
        EXPECT_EQ(Difference(decode + file, std::string(text) + ".decoded.txt"), "") << capture;
        if (!converts) continue;
        const std::string command = "editcap -F pcapng " + file + " " + copy;
        EXPECT_EQ(vexa::testkit::RunShell(command).status, 0);
        EXPECT_EQ(Difference(decode + copy, std::string(text) + ".decoded.txt"), "") << capture;
    }
    std::filesystem::remove(copy);
    const auto samples = vexa::testkit::RunShell(
        VEXA_HOST_PROGRAM " decode " + PathOf("bus-split-usbmon.pcap") +
        " --csv --device Microphone --format x=u8@0x2 2>/dev/null | tail -n2");
    EXPECT_EQ(samples.output, "0.030024,97\n0.031512,98\n");
}

TEST(Captures, BecomeSoundWithSilenceWhereBlocksAreMissing) {
    const std::string folder = testing::TempDir() + "vexa-sound";
    const auto ran = vexa::testkit::RunShell(VEXA_HOST_PROGRAM " decode --wav --out " + folder +
                                             " " + PathOf("faults.pcapng"));
    EXPECT_THAT(ran.output, testing::HasSubstr("samples, 3 gaps filled with "));
    std::filesystem::remove_all(folder);
}

// The first is of a real bus from the unit's arrival on, so that its id is enough. The others, one
// sequence in two formats, are made by hand: two units at once whose arrival nobody saw, frames and
// packets that end in a later transfer, a new configuration in the middle of both, a bad frame
// header, and a device that is no unit.
TEST(Captures, OfTheUsbBusAreDissectedAsTheirTextsSay) {
    if (!CanDissect()) GTEST_SKIP() << kNotDissected;
    constexpr std::tuple<const char*, const char*, const char*> kBuses[] = {
        {"bus-session.pcap", "bus-session.tshark.txt", " --disable-heuristic vexa_usb.bulk"},
        {"bus-split-usbmon.pcap", "bus-split.tshark.txt", ""},
        {"bus-split-usbpcap.pcap", "bus-split.tshark.txt", ""}};
    for (const auto& [capture, text, options] : kBuses) {
        const std::string fields = " -Y vexa -e vexa.direction -e usb.device_address";
        EXPECT_EQ(Difference(kDissection + PathOf(capture) + fields + options, text), "")
            << capture;
    }
}

// The frames of a capture, and what is wrong with it.
std::pair<std::string, std::string> Read(const Capture& capture) {
    std::string text;
    PcapngReader reader(capture);
    while (const auto frame = reader.Next()) text += HexText(frame->bytes, 0xFFFF) + '\n';
    return {text, reader.Fault()};
}

TEST(Captures, GiveWhatIsWholeOfThemWhenTheyAreDamaged) {
    const Capture capture = Load(PathOf("split-packets.pcapng"));
    const std::string whole = Read(capture).first;
    int complete = 0;
    for (auto end = capture.begin(); end <= capture.end(); ++end) {
        // A buffer of its own, so that a sanitizer sees any byte after its end.
        const auto [frames, fault] = Read({capture.begin(), end});
        EXPECT_TRUE(whole.starts_with(frames)) << fault;
        if (fault.empty()) ++complete;
    }
    EXPECT_EQ(complete, 23) << "it is whole only where a block ends";

    constexpr std::size_t kInterface = 28;  // where the interface block begins
    const std::tuple<std::size_t, std::uint8_t, const char*> cases[] = {
        {0, 1, "this is no pcapng capture"},
        {kInterface + 4, 7, "a block of 7 bytes cannot be"},
        {kInterface + 8, 1, "link type 1, not 147"},
        {kInterface, 9, "an interface that is not there"},
        {kInterface + 18, 0xFF, "do not fit into it"}};
    for (const auto& [at, value, fault] : cases) {
        Capture bad = Load(PathOf("faults.pcapng"));
        bad[at] = value;
        EXPECT_THAT(Read(bad).second, testing::HasSubstr(fault));
    }
}

}  // namespace
}  // namespace vexahost
