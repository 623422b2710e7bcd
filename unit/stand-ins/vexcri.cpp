// The C face of the modelled application-session library: checks arguments; LibraryCall does the
// rest.
#include "vexcri.h"

#include <string>
#include <string_view>

#include "model/LibraryCall.h"
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

// `work` tells whether it succeeded.
template <typename Work>
std::int32_t Perform(LibraryCall& call, Work work) {
    return static_cast<std::int32_t>(
        call.Perform(0, [&](const FaultEffect&) { return CallOutcome{work() ? 1 : 0}; }));
}

void NoteAnswer(const std::string& application, std::uint32_t command, std::int32_t response) {
    CallLine line("criAnswer");
    line.Text(application).Number(command).Number(response);
    Unit::Instance().CallJournal().Write(line.Line());
}

// A call with a session: its line starts with the session's application, or with its number when
// there is none.
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
    const std::string_view application = name == nullptr ? "" : name;
    LibraryCall call(Call::kCriInit, application);
    call.Line().Text(application).Number(mode);
    return Perform(call, [&] {
        if (name == nullptr || callback == nullptr || handle == nullptr) return false;
        const auto session = Library().Init(application, callback, context, NoteAnswer);
        if (session != 0) *handle = session;
        return session != 0;
    });
}

VEXCRI_PUBLIC std::int32_t criCommand(std::uint32_t handle, std::uint32_t command,
                                      std::uint32_t argument) {
    auto call = SessionCall(Call::kCriCommand, handle);
    call.Line().Number(command).Number(argument);
    return Perform(call, [&] { return Library().Command(handle, command); });
}

VEXCRI_PUBLIC std::int32_t criTerminate(std::uint32_t handle, std::int32_t mode) {
    auto call = SessionCall(Call::kCriTerminate, handle);
    call.Line().Number(mode);
    return Perform(call, [&] { return Library().Terminate(handle).has_value(); });
}
