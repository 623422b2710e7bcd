// The C interface of the modelled application-session library. It checks the arguments; LibraryCall
// applies faults and writes the call log.
#include "vexcri.h"

#include <string>
#include <string_view>

#include "model/CallLog.h"
#include "model/Events.h"
#include "model/Runtime.h"
#include "model/Unit.h"

#define VEXCRI_PUBLIC extern "C" __attribute__((visibility("default")))

using vexa::unit::Call;
using vexa::unit::CallLine;
using vexa::unit::CallOutcome;
using vexa::unit::FaultEffect;
using vexa::unit::LibraryCall;
using vexa::unit::Unit;

namespace {

vexa::unit::CriLibrary& Library() { return Unit::Instance().Cri(); }

// The result of the body of a call; when the process has nothing left to serve it with, 0.
template <typename Body>
std::int32_t OrRefused(Body body) {
    return vexa::unit::OrFail(std::int32_t{0}, body);
}

// Performs a call; `work` returns whether it succeeded.
template <typename Work>
std::int32_t Perform(LibraryCall& call, Work work) {
    return static_cast<std::int32_t>(
        call.Perform(0, [&](const FaultEffect&) { return CallOutcome{work() ? 1 : 0}; }));
}

void LogAnswer(const std::string& application, std::uint32_t command, std::int32_t response) {
    CallLine line("criAnswer");
    line.Text(application).Number(command).Number(response);
    Unit& unit = Unit::Instance();
    unit.Calls().Write(line.Line());
    ReportAnswer(unit, application, command, response);
}

// A call on a session. Its line names the session's application, or the handle when there is no
// such session.
LibraryCall SessionCall(Call call, std::uint32_t session) {
    const auto application = Library().ApplicationName(session);
    LibraryCall made(call, application.value_or(""));
    if (application) {
        made.Line().Text(*application);
    } else {
        made.Line().Number(session, "session");
    }
    return made;
}

}  // namespace

VEXCRI_PUBLIC std::int32_t criInit(const char* name, std::int32_t mode, CriCallback callback,
                                   void* context, std::uint32_t* handle) {
    return OrRefused([&] {
        const std::string_view application = name == nullptr ? "" : name;
        LibraryCall call(Call::kCriInit, application);
        call.Line().Text(application).Number(mode);
        return Perform(call, [&] {
            if (name == nullptr || callback == nullptr || handle == nullptr) return false;
            const auto session = Library().Init(application, callback, context, LogAnswer);
            if (session != 0) *handle = session;
            return session != 0;
        });
    });
}

VEXCRI_PUBLIC std::int32_t criCommand(std::uint32_t handle, std::uint32_t command,
                                      std::uint32_t argument) {
    return OrRefused([&] {
        auto call = SessionCall(Call::kCriCommand, handle);
        call.Line().Number(command).Number(argument);
        return Perform(call, [&] { return Library().Command(handle, command); });
    });
}

VEXCRI_PUBLIC std::int32_t criTerminate(std::uint32_t handle, std::int32_t mode) {
    return OrRefused([&] {
        auto call = SessionCall(Call::kCriTerminate, handle);
        call.Line().Number(mode);
        return Perform(call, [&] { return Library().Terminate(handle); });
    });
}
