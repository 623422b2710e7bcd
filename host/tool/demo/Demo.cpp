#include "tool/demo/Demo.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tool/Connection.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "tool/Samples.h"
#include "tool/Verbs.h"

namespace vexahost::tool {

bool Journal::WaitFor(std::string_view text, std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds kPoll{10};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        Read();
        const auto holds = [&](const std::string& line) { return line.find(text) != line.npos; };
        if (std::ranges::any_of(lines, holds)) return true;
        if (std::chrono::steady_clock::now() >= deadline || IsInterrupted()) return false;
        std::this_thread::sleep_for(kPoll);
    }
}

std::vector<std::string> Journal::TakeLines() {
    Read();
    std::vector<std::string> taken;
    taken.swap(lines);
    return taken;
}

void Journal::Read() {
    std::ifstream file(path, std::ios::binary);
    if (!file || !file.seekg(readTo)) return;
    std::string line;
    // A last line without a line feed may be half written: it is left for the next time.
    while (std::getline(file, line) && !file.eof()) {
        readTo += static_cast<long>(line.size()) + 1;
        lines.push_back(line);
    }
}

namespace {

constexpr Milliseconds kLineTimeout{3000};
constexpr Milliseconds kEndTimeout{5000};
constexpr std::size_t kBytesShown = 12;

// Whether a line of the journal is about taking or giving back hardware; the others are detail.
bool IsTelling(const std::string& journalLine) {
    for (const char* start : {"criCommand(", "criAnswer(", "VEXA_Device_Stream_Open(",
                              "VEXA_Device_Stream_Close(", "VEXA_Device_Open("}) {
        if (journalLine.starts_with(start)) return true;
    }
    return false;
}

}  // namespace

Demo::Demo(const Console& output, std::vector<std::string> unitCommand, std::string unitDirectory)
    : console(output),
      command(std::move(unitCommand)),
      directory(std::move(unitDirectory)),
      journal(directory + "/journal"),
      nextChild(kFirstDeviceId) {}

Demo::~Demo() = default;

const std::vector<Demo::Step>& Demo::Steps() {
    static const std::vector<Step> steps = {
        {"The unit starts", &Demo::StartUnit, true},
        {"The host plugs the cable in", &Demo::PlugIn, true},
        {"Initial sync: both sides find the start of a packet", &Demo::Synchronise, true},
        {"The host opens the controller, without the DAQ", &Demo::OpenController, true},
        {"Does the unit's own DAQ application hold the hardware?", &Demo::QueryDaq, false},
        {"The host takes the DAQ over", &Demo::TakeDaqOver, false},
        {"The host opens three sensors", &Demo::OpenSensors, false},
        {"Three seconds of data", &Demo::ReadSensors, false},
        {"A sensor echoes: 20 round trips", &Demo::MeasureEcho, false},
        {"A packet with a wrong checksum is dropped", &Demo::SendWrongChecksum, false},
        {"A packet for a child that does not exist is dropped", &Demo::SendToUnknownChild, false},
        {"A device of an unsupported type is refused", &Demo::OpenUnsupported, false},
        {"Ten children are the most: the eleventh is refused", &Demo::OpenTooMany, false},
        {"The host closes the children", &Demo::CloseChildren, false},
        {"The host closes the controller: the hardware goes back", &Demo::CloseController, false},
        {"The cable is pulled while a sensor is open", &Demo::PullCable, false},
        {"The cable is put back: a fresh start", &Demo::PlugInAgain, false},
        {"The unit is told to end (SIGTERM)", &Demo::EndUnit, false},
    };
    return steps;
}

ExitCode Demo::Run() {
    std::size_t right = 0;
    std::size_t number = 0;
    for (const Step& step : Steps()) {
        const bool went = PlayStep(++number, step);
        if (went) ++right;
        if (IsInterrupted() || (!went && step.essential)) break;
    }
    client.reset();
    if (unit) {
        unit->Signal(SIGTERM);
        if (!unit->Wait(kEndTimeout)) console.Line(Style::kBad, "", "The unit had to be killed.");
    }
    if (IsInterrupted()) {
        std::printf("\nInterrupted.\n");
        return kExitInterrupted;
    }
    const bool all = right == Steps().size();
    const std::string summary =
        std::to_string(right) + " of " + std::to_string(Steps().size()) + " steps as expected";
    std::printf("\n%s\n", console.Styled(all ? Style::kGood : Style::kBad, summary).c_str());
    return all ? kExitDone : kExitWrongAnswer;
}

bool Demo::PlayStep(std::size_t number, const Step& step) {
    char label[8];
    std::snprintf(label, sizeof label, "%2zu  ", number);
    std::printf("\n");
    console.Line(Style::kBold, label + std::string(step.title), "");
    failure.clear();
    (this->*step.play)();
    if (IsInterrupted()) return false;
    if (failure.empty()) {
        console.Line(Style::kGood, "    ok", "");
    } else {
        std::printf("    %s\n", console.Styled(Style::kBad, "FAILED: " + failure).c_str());
    }
    return failure.empty();
}

void Demo::Fail(const std::string& expected, const std::string& got) {
    if (failure.empty()) failure = "expected " + expected + ", got " + got;
}

void Demo::Expect(bool right, const std::string& expected, const std::string& got) {
    if (!right) Fail(expected, got);
}

template <typename T>
bool Demo::ExpectValue(const Expected<T>& result, const std::string& expected) {
    if (!result) Fail(expected, result.error().message);
    return static_cast<bool>(result);
}
template bool Demo::ExpectValue(const Expected<Done>&, const std::string&);
template bool Demo::ExpectValue(const Expected<DaqApplication>&, const std::string&);
template bool Demo::ExpectValue(const Expected<Block>&, const std::string&);
template bool Demo::ExpectValue(const Expected<std::vector<std::uint8_t>>&, const std::string&);

void Demo::ExpectRefusal(const Expected<Done>& result, ChildId child, int code) {
    const std::string expected = "error " + std::to_string(code);
    if (result) {
        Fail(expected, "child " + std::to_string(child) + " opened");
    } else if (result.error().kind != ErrorKind::kRefused || result.error().code != code) {
        Fail(expected, result.error().message);
    }
}

void Demo::Note(const std::string& text) const { console.Line(Style::kDim, "    note   ", text); }

void Demo::Show(const std::vector<std::string>& logLines,
                const std::vector<std::string>& journalLines) {
    ShowTraffic(Direction::kToUnit);
    // Once something is missing, nothing else is waited for.
    const auto patience = [this] { return failure.empty() ? kLineTimeout : Milliseconds{0}; };
    for (const std::string& line : logLines) {
        if (!WaitForLog(line, patience())) Fail("\"" + line + "\"", "no such log line");
    }
    for (const std::string& line : journalLines) {
        if (!journal.WaitFor(line, patience())) Fail(line, "no such line in the journal");
    }
    for (const std::string& line : unit->Log().TakeLines()) {
        logShown += line.size() + 1;
        console.Line(Style::kUnit, "    unit | ", line);
    }
    for (const std::string& line : journal.TakeLines()) {
        if (!IsTelling(line)) continue;
        const char* label = line.starts_with("cri") ? "    apps | " : "    libs | ";
        console.Line(Style::kApplications, label, line);
    }
    ShowTraffic(Direction::kFromUnit);
}

bool Demo::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds kSlice{50};
    for (;;) {
        const auto slice = std::min(timeout, kSlice);
        const bool isEnd = unit->Log().WaitForEnd(slice.zero());
        if (unit->Log().WaitFor(text, slice, logShown) != std::string::npos) return true;
        timeout -= slice;
        if (isEnd || timeout == slice.zero() || IsInterrupted()) return false;
    }
}

void Demo::ShowTraffic(Direction direction) {
    const bool isSent = direction == Direction::kToUnit;
    std::vector<Heard> heard;
    {
        const vexa::MutexLock lock(trafficMutex);
        heard.swap(isSent ? sent : received);
    }
    for (const Heard& packet : heard) {
        console.Line(isSent ? Style::kToUnit : Style::kFromUnit,
                     isSent ? "    host > " : "    host < ", packet.words, packet.bytes);
    }
}

void Demo::OnPacket(Direction direction, std::span<const std::uint8_t> packet) {
    Heard heard{DescribePacket(direction, packet), HexText(packet, kBytesShown)};
    const vexa::MutexLock lock(trafficMutex);
    if (direction == Direction::kToUnit) {
        if (showRequests) sent.push_back(std::move(heard));
        return;
    }
    if (heard.words.starts_with("DAQ packet")) {
        if (daqPacketsToShow == 0) return;
        --daqPacketsToShow;
        heard.words = "DAQ at " + DescribeBlock(packet);
    } else if (heard.words.find("from child") != std::string::npos) {
        return;
    }
    received.push_back(std::move(heard));
}

namespace {

struct DemoOptions {
    std::string directory;             // of the unit; empty: a temporary one, removed at the end
    std::vector<std::string> command;  // starts the unit; "{dir}" in it stands for the directory
};

// A directory of its own for the unit, removed with all that is in it.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::error_code error;
        std::string pattern = std::filesystem::temp_directory_path(error) / "vexa-demo-XXXXXX";
        if (!error && mkdtemp(pattern.data()) != nullptr) path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    // Empty when none could be made.
    [[nodiscard]] const std::string& Path() const { return path; }

  private:
    std::string path;
};

void ReplaceDirectory(std::string& word, const std::string& directory) {
    constexpr std::string_view kPlace = "{dir}";
    for (auto at = word.find(kPlace); at != std::string::npos;
         at = word.find(kPlace, at + directory.size())) {
        word.replace(at, kPlace.size(), directory);
    }
}

ExitCode RunDemo(const DemoOptions& options) {
    CatchInterrupts();
    std::string directory = options.directory;
    std::unique_ptr<TemporaryDirectory> temporary;
    if (directory.empty()) {
        temporary = std::make_unique<TemporaryDirectory>();
        if (temporary->Path().empty()) {
            return ReportError({ErrorKind::kInvalidArgument, "cannot make a temporary directory"});
        }
        directory = temporary->Path();
    }
    std::vector<std::string> command = options.command;
    for (std::string& word : command) ReplaceDirectory(word, directory);
    const Console console;
    Demo demo(console, command, directory);
    return demo.Run();
}

}  // namespace

Verb DemoVerb() {
    const auto options = std::make_shared<DemoOptions>();
    return {
        .name = "demo",
        .summary =
            "Start a virtual unit, play a whole host session against it, and show both sides",
        .options = {{"--dir", "DIR", "directory of the unit (a temporary one, removed at the end)",
                     &options->directory},
                    {.name = "COMMAND",
                     .placeholder = "-- COMMAND ARGS...",
                     .help = "what starts the unit; {dir} stands for the directory",
                     .target = &options->command,
                     .required = true}},
        .notes =
            "Example: vexa-host demo -- vexa-unit run --dir {dir} --journal {dir}/journal\n"
            "Exit codes: 0 when every step went as expected, else 1.",
        .run = [options] { return RunDemo(*options); },
        .restIsCommand = true};
}

}  // namespace vexahost::tool
