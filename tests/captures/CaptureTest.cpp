// The captures of this folder: what vexa-host and the dissector say of each, line by line, and how
// damaged ones are read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "testkit/ChildProcess.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexahost {
namespace {

constexpr const char* kNames[] = {"whole-session", "faults", "split-packets"};

std::string PathOf(const std::string& name) { return VEXA_CAPTURES "/" + name; }

std::string Output(const std::string& commandLine) {
    return vexa::testkit::RunShell(commandLine).output;
}

TEST(Captures, AreDecodedAsTheirTextsSay) {
    for (const std::string name : kNames) {
        EXPECT_EQ(Output(VEXA_HOST_PROGRAM " decode " + PathOf(name) +
                         ".pcapng 2>/dev/null | diff " + PathOf(name) + ".decoded.txt - 2>&1"),
                  "");
    }
}

TEST(Captures, AreDissectedAsTheirTextsSay) {
    if (Output("tshark --version 2>/dev/null").empty()) GTEST_SKIP() << "tshark is not installed";
    for (const std::string name : kNames) {
        EXPECT_EQ(Output("tshark -X lua_script:" VEXA_DISSECTOR " -r " + PathOf(name) +
                         ".pcapng -T fields -E 'separator=|' -e frame.number -e _ws.col.Info"
                         " -e vexa.command -e vexa.error -e vexa.child -e vexa.checksum.right"
                         " -e vexa.expert.lost -e vexa.expert.checksum 2>/dev/null | diff " +
                         PathOf(name) + ".tshark.txt - 2>&1"),
                  "");
    }
}

// All that the frames of a capture say; `fault` as the reader gives it.
std::string Digest(std::span<const std::uint8_t> capture, std::string* fault = nullptr) {
    std::string text;
    CaptureDecoder decoder([&](const DecodedPacket& packet) { text += packet.text + '\n'; });
    PcapngReader reader(capture);
    while (const auto frame = reader.Next()) {
        text += std::to_string(frame->time.count()) + HexText(frame->bytes, 0xFFFF) + '\n';
        decoder.Add(*frame);
    }
    if (fault != nullptr) *fault = reader.Fault();
    return text;
}

TEST(Captures, ReadTheSameWhenWrittenAnew) {
    const std::string path = testing::TempDir() + "rewritten.pcapng";
    for (const std::string name : kNames) {
        const auto original = ReadWholeFile(PathOf(name) + ".pcapng");
        ASSERT_TRUE(original);
        {
            auto writer = PcapngWriter::Create(path);
            ASSERT_TRUE(writer);
            PcapngReader reader(*original);
            while (const auto frame = reader.Next()) ASSERT_TRUE(writer->Add(*frame));
        }
        const auto rewritten = ReadWholeFile(path);
        ASSERT_TRUE(rewritten);
        EXPECT_EQ(Digest(*rewritten), Digest(*original)) << name;
    }
    std::filesystem::remove(path);
}

TEST(Captures, GiveWhatIsWholeOfThemWhenTheyBreakOff) {
    const auto capture = ReadWholeFile(PathOf("split-packets.pcapng"));
    ASSERT_TRUE(capture);
    const std::string whole = Digest(*capture);
    std::size_t complete = 0;
    for (std::size_t size = 0; size <= capture->size(); ++size) {
        // On its own, so that a sanitizer sees any byte behind its end.
        const std::vector<std::uint8_t> part(capture->begin(),
                                             capture->begin() + static_cast<std::ptrdiff_t>(size));
        std::string fault;
        EXPECT_TRUE(whole.starts_with(Digest(part, &fault))) << size;
        if (fault.empty()) ++complete;
    }
    EXPECT_EQ(complete, 23U) << "it is whole only where a block ends";
}

TEST(Captures, SayWhatIsWrongWithThem) {
    const auto good = ReadWholeFile(PathOf("faults.pcapng"));
    ASSERT_TRUE(good);
    const auto faultOf = [&](std::size_t at, std::uint8_t value) {
        auto bad = *good;
        bad[at] = value;
        std::string fault;
        (void)Digest(bad, &fault);
        return fault;
    };
    constexpr std::size_t kInterface = 28;  // where the interface block begins
    EXPECT_THAT(faultOf(0, 1), testing::HasSubstr("this is no pcapng capture"));
    EXPECT_THAT(faultOf(kInterface + 4, 7), testing::HasSubstr("a block of 7 bytes cannot be"));
    EXPECT_THAT(faultOf(kInterface + 8, 1), testing::HasSubstr("link type 1, not 147"));
    EXPECT_THAT(faultOf(kInterface, 9), testing::HasSubstr("an interface that is not there"));
    EXPECT_THAT(faultOf(kInterface + 18, 0xFF), testing::HasSubstr("do not fit into it"));
}

}  // namespace
}  // namespace vexahost
