#include "model/CallLog.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "model/Events.h"
#include "model/Unit.h"

namespace vexa::unit {

namespace {

void SleepFor(std::uint32_t ms) {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// "fault 1", or "faults 1 2".
std::string FaultText(const FaultEffect& effect) {
    std::string text = effect.faults.size() == 1 ? "fault" : "faults";
    for (const auto id : effect.faults) text.append(" ").append(std::to_string(id));
    return text;
}

}  // namespace

CallLog::CallLog(const std::string& path) {
    if (path.empty()) return;
    // Opening a FIFO would wait for a reader, and no signal could end that wait.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK;
    file = testkit::Descriptor(::open(path.c_str(), kFlags, 0666));
    if (!file) throw std::runtime_error(path + ": " + std::strerror(errno));
    ::fcntl(file.Get(), F_SETFL, O_WRONLY | O_APPEND);
}

void CallLog::Write(std::string line) const {
    if (!file) return;
    line += '\n';
    // A full disk costs log lines, never the service.
    [[maybe_unused]] const auto written = ::write(file.Get(), line.data(), line.size());
}

std::string QuotedText(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string quoted = "\"";
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x20 || byte > 0x7E) {
            quoted += "\\x";
            quoted += digits[byte >> 4U];
            quoted += digits[byte & 0xFU];
            continue;
        }
        if (letter == '"' || letter == '\\') quoted += '\\';
        quoted += letter;
    }
    return quoted + "\"";
}

CallLine::CallLine(std::string_view function) : call(std::string(function) + "(") {}

std::string& CallLine::NextArgument() {
    if (hasArguments) call += ", ";
    hasArguments = true;
    return call;
}

CallLine& CallLine::Number(std::int64_t value, std::string_view label) {
    auto& line = NextArgument();
    if (!label.empty()) line += std::string(label) + " ";
    line += std::to_string(value);
    return *this;
}

CallLine& CallLine::Text(std::string_view text) {
    NextArgument() += QuotedText(text);
    return *this;
}

CallLine& CallLine::Word(std::string_view word) {
    NextArgument() += word;
    return *this;
}

CallLine& CallLine::Result(std::int64_t result) {
    tail += " = " + std::to_string(result);
    return *this;
}

CallLine& CallLine::Note(std::string_view note) {
    tail += "  # " + std::string(note);
    return *this;
}

std::string CallLine::Line() const { return call + ")" + tail; }

LibraryCall::LibraryCall(Call call_, std::string_view target_)
    : call(call_), target(target_), line(InfoOf(call_).name) {}

std::int64_t LibraryCall::Perform(std::int64_t failure, const Work& work) {
    const FaultEffect effect = Unit::Instance().Faults().Use(call, target);
    SleepFor(effect.blockMs);
    const CallOutcome failed{failure};
    const CallOutcome outcome =
        effect.error ? failed : OrFail(failed, [&] { return work(effect); });
    SleepFor(effect.lateMs);
    // Without memory for its line, the call has been made all the same.
    (void)OrFail(false, [&] {
        Report(outcome, effect);
        return true;
    });
    return outcome.result;
}

void LibraryCall::Report(const CallOutcome& outcome, const FaultEffect& effect) {
    Unit& unit = Unit::Instance();
    line.Result(outcome.result);
    std::string note = outcome.note;
    if (!effect.IsNone()) {
        if (!note.empty()) note += "; ";
        note += FaultText(effect);
    }
    if (!note.empty()) line.Note(note);
    unit.Calls().Write(line.Line());
    if (quiet && effect.IsNone()) return;
    ReportCall(unit, call, target, outcome.result, effect, line.Line());
}

}  // namespace vexa::unit
