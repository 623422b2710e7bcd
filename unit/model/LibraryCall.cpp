#include "model/LibraryCall.h"

#include <chrono>
#include <thread>

#include "model/Unit.h"

namespace vexa::unit {

namespace {

void Wait(std::uint32_t ms) {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace

std::string FaultText(const FaultEffect& effect) {
    std::string text = effect.faults.size() == 1 ? "fault" : "faults";
    for (const auto id : effect.faults) text.append(" ").append(std::to_string(id));
    return text;
}

LibraryCall::LibraryCall(Call call_, std::string_view target_)
    : call(call_), target(target_), line(InfoOf(call_).name) {}

std::int64_t LibraryCall::Perform(std::int64_t failure, const Work& work) {
    const FaultEffect effect = Unit::Instance().Faults().Use(call, target);
    Wait(effect.blockMs);
    const CallOutcome outcome = effect.error ? CallOutcome{failure} : work(effect);
    Wait(effect.lateMs);
    WriteDown(outcome, effect);
    return outcome.result;
}

void LibraryCall::WriteDown(const CallOutcome& outcome, const FaultEffect& effect) {
    if (quiet && effect.IsNone()) return;
    line.Result(outcome.result);
    std::string note = outcome.note;
    if (!effect.IsNone()) {
        if (!note.empty()) note += "; ";
        note += FaultText(effect);
    }
    if (!note.empty()) line.Note(note);
    Unit::Instance().CallJournal().Write(line.Line());
}

}  // namespace vexa::unit
