// The frame of the demo: its list of steps, what is shown of each, and what counts as wrong.
#include "Demo.h"

#include <cstdio>

#include "../Connection.h"
#include "../DeviceData.h"
#include "../Interrupt.h"

using vexahost::ChildId;
using vexahost::Direction;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;

namespace {

constexpr Milliseconds kLineTimeout{3000};
constexpr Milliseconds kEndTimeout{5000};
constexpr std::size_t kBytesShown = 12;

// Calls of the unit's libraries that tell what is taken and given back; the others are detail.
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
        unit->Terminate();
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
    if (!result) Fail(expected, result.Failure().message);
    return static_cast<bool>(result);
}
template bool Demo::ExpectValue(const Expected<Done>&, const std::string&);
template bool Demo::ExpectValue(const Expected<bool>&, const std::string&);
template bool Demo::ExpectValue(const Expected<vexahost::Block>&, const std::string&);
template bool Demo::ExpectValue(const Expected<std::vector<std::uint8_t>>&, const std::string&);

void Demo::ExpectRefusal(const Expected<Done>& result, ChildId child, int code) {
    const std::string expected = "error " + std::to_string(code);
    if (result) {
        Fail(expected, "child " + std::to_string(child) + " opened");
    } else if (result.Failure().kind != ErrorKind::kRefused || result.Failure().code != code) {
        Fail(expected, result.Failure().message);
    }
}

void Demo::Note(const std::string& text) const { console.Line(Style::kDim, "    note   ", text); }

void Demo::Show(const std::vector<std::string>& logLines,
                const std::vector<std::string>& journalLines) {
    ShowTraffic(Direction::kToUnit);
    // What did not come once keeps nobody waiting again.
    const auto patience = [this] { return failure.empty() ? kLineTimeout : Milliseconds{0}; };
    for (const std::string& line : logLines) {
        if (!unit->Log().WaitFor(line, patience())) Fail("\"" + line + "\"", "no such log line");
    }
    for (const std::string& line : journalLines) {
        if (!journal.WaitFor(line, patience())) Fail(line, "no such line in the journal");
    }
    for (const std::string& line : unit->Log().Take()) {
        console.Line(Style::kUnit, "    unit | ", line);
    }
    for (const std::string& line : journal.Take()) {
        if (!IsTelling(line)) continue;
        const char* label = line.starts_with("cri") ? "    apps | " : "    libs | ";
        console.Line(Style::kApplications, label, line);
    }
    ShowTraffic(Direction::kFromUnit);
}

void Demo::ShowTraffic(Direction direction) {
    const bool isSent = direction == Direction::kToUnit;
    std::vector<Heard> heard;
    {
        const std::lock_guard lock(trafficMutex);
        heard.swap(isSent ? sent : received);
    }
    for (const Heard& packet : heard) {
        console.Line(isSent ? Style::kToUnit : Style::kFromUnit,
                     isSent ? "    host > " : "    host < ", packet.words, packet.bytes);
    }
}

void Demo::OnPacket(Direction direction, std::span<const std::uint8_t> packet) {
    Heard heard{vexahost::DescribePacket(direction, packet),
                vexahost::HexText(packet, kBytesShown)};
    const std::lock_guard lock(trafficMutex);
    if (direction == Direction::kToUnit) {
        if (showRequests) sent.push_back(std::move(heard));
        return;
    }
    if (heard.words.starts_with("DAQ packet")) {
        if (daqPacketsToShow == 0) return;
        --daqPacketsToShow;
        heard.words = "DAQ at " + DescribeBlock(packet);
    } else if (heard.words.find("from child") != std::string::npos) {
        if (blocksToShow == 0) return;
        --blocksToShow;
    }
    received.push_back(std::move(heard));
}
