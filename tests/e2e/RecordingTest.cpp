// Recordings against the real binary, and the worked session of docs/protocol.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "e2e/RunningUnit.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexa::test {
namespace {

using testing::HasSubstr;

// What vexa-host gives with these arguments.
testkit::Finished RunHost(const std::string& arguments) {
    return testkit::RunShell(Program("vexa-host") + " " + arguments);
}

TEST(Recording, OfAHostIsPlayedToAUnitThatAnswersTheSameOrNot) {
    const std::string file = testing::TempDir() + "recorded.pcapng";
    {
        const RunningUnit unit(kQuietUnit);
        const std::string on = " --dir " + unit.Folder();
        const auto recorded =
            RunHost("record " + file + on + " -- " + Program("vexa-host") + " query --wait 20s");
        EXPECT_EQ(recorded.status, 0) << recorded.output;
        const auto same = RunHost("replay --fast " + file + on);
        EXPECT_EQ(same.status, 0) << same.output;
        EXPECT_THAT(same.output, HasSubstr("query DAQ application (request 3): result 1"));
        const auto whole =
            RunHost("replay --fast --data " VEXA_CAPTURES "/whole-session.pcapng" + on);
        EXPECT_EQ(whole.status, 0) << whole.output;
        EXPECT_THAT(whole.output, HasSubstr("13 of 13 answers as recorded"));
    }
    const RunningUnit other(R"({"applications": {"DAQ": {"holds": false}}})");
    const auto different = RunHost("replay --fast " + file + " --dir " + other.Folder());
    EXPECT_EQ(different.status, 1);
    EXPECT_THAT(different.output, HasSubstr("now query DAQ application (request 3): result 0"));
    std::filesystem::remove(file);
}

TEST(Documentation, ItsWorkedSessionIsWhatHappens) {
    std::ifstream page(VEXA_DOCS "/protocol.md");
    RunningUnit unit(kQuietUnit);
    Host host(unit);
    std::string words;
    vexahost::CaptureDecoder decoder([&](const auto& packet) { words = packet.text; });
    const auto check = [&](char direction, const Bytes& bytes, const std::string& expected) {
        const bool toUnit = direction == '>';
        if (toUnit) {
            host.Send(bytes);
        } else {
            EXPECT_EQ(host.Receive(), ToHex(bytes)) << expected;
        }
        const Bytes header = Le32(static_cast<std::uint32_t>(bytes.size())) + Hex("55 30 31 32");
        const Bytes frame = toUnit ? bytes : header + bytes;
        decoder.Add({{},
                     toUnit ? vexahost::Direction::kToUnit : vexahost::Direction::kFromUnit,
                     frame,
                     ""});
        EXPECT_EQ(words, expected);
    };
    std::string line;
    while (std::getline(page, line) && line != "```session") continue;
    std::string expected;
    int packets = 0;
    while (std::getline(page, line) && line != "```") {
        if (line.starts_with("# ")) {
            expected = line.substr(2);
        } else {
            check(line[0], Hex(line.substr(2)), expected);
            ++packets;
        }
    }
    EXPECT_GT(packets, 20) << "the session is not where it was";
}

}  // namespace
}  // namespace vexa::test
