// Recordings against the real binary, and the worked session of docs/protocol.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"
#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

using testing::HasSubstr;

// What the session in the documentation and the recording "whole-session" ran against.
constexpr char kQuiet[] = R"({
  "devices": [{"name": "Stream", "type": 8, "rate": 0}, {"name": "Hid", "type": 2, "rate": 0},
              {"name": "Camera", "type": 7}],
  "daq": {"name": "Board", "measurementRate": 0}})";

// Exit code, then what vexa-host printed.
std::pair<int, std::string> RunHost(const std::string& arguments) {
    FILE* const pipe = popen((PROGRAM_DIR "/vexa-host " + arguments + " 2>&1").c_str(), "re");
    std::string text;
    std::array<char, 500> piece{};
    while (const std::size_t count = fread(piece.data(), 1, piece.size(), pipe)) {
        text.append(piece.data(), count);
    }
    return {WEXITSTATUS(pclose(pipe)), text};
}

TEST(Recording, OfWhatAHostSaysIsPlayedToAUnitThatAnswersTheSameOrNot) {
    const std::string file = testing::TempDir() + "recorded.pcapng";
    {
        const RunningUnit unit(kQuiet);
        const auto folder = std::filesystem::path(unit.SocketPath()).parent_path().string();
        const auto [recorded, said] =
            RunHost("record " + file + " --dir " + folder + " -- " PROGRAM_DIR "/vexa-host query");
        EXPECT_EQ(recorded, 0) << said;
        const auto [same, sameText] = RunHost("replay --fast " + file + " --dir " + folder);
        EXPECT_EQ(same, 0) << sameText;
        EXPECT_THAT(sameText, HasSubstr("query DAQ application (request 3): result 1"));
        const auto [whole, wholeText] =
            RunHost("replay --fast --data " VEXA_CAPTURES "/whole-session.pcapng --dir " + folder);
        EXPECT_EQ(whole, 0) << wholeText;
        EXPECT_THAT(wholeText, HasSubstr("13 of 13 answers as recorded"));
    }
    const RunningUnit other(R"({"applications": {"DAQ": {"holds": false}}})");
    const auto folder = std::filesystem::path(other.SocketPath()).parent_path().string();
    const auto [different, text] = RunHost("replay --fast " + file + " --dir " + folder);
    EXPECT_EQ(different, 1);
    EXPECT_THAT(text, HasSubstr("now query DAQ application (request 3): result 0"));
    std::filesystem::remove(file);
}

TEST(Documentation, ItsWorkedSessionIsWhatHappens) {
    std::ifstream page(VEXA_DOCS "/protocol.md");
    RunningUnit unit(kQuiet);
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
