// The C face of the modelled application-session library: checks arguments, keeps the journal.
#include "vexcri.h"

#include <string>
#include <string_view>

#include "model/CallLine.h"
#include "model/Unit.h"

#define VEXCRI_PUBLIC extern "C" __attribute__((visibility("default")))

using vexa::unit::CallLine;
using vexa::unit::Unit;

namespace {

vexa::unit::CriLibrary& Library() { return Unit::Instance().Cri(); }

std::int32_t Finish(CallLine& line, bool success) {
    Unit::Instance().CallJournal().Write(line.Result(success ? 1 : 0).Line());
    return success ? 1 : 0;
}

void NoteAnswer(const std::string& application, std::uint32_t command, std::int32_t response) {
    CallLine line("criAnswer");
    line.Text(application).Number(command).Number(response);
    Unit::Instance().CallJournal().Write(line.Line());
}

// Starts a line with the session's application, or with its number when there is none.
CallLine SessionLine(std::string_view function, std::uint32_t session,
                     const std::optional<std::string>& application) {
    CallLine line(function);
    if (application) return line.Text(*application);
    return line.Number(session, "session");
}

}  // namespace

VEXCRI_PUBLIC std::int32_t criInit(const char* name, std::int32_t mode, CriCallback callback,
                                   void* context, std::uint32_t* handle) {
    CallLine line("criInit");
    line.Text(name == nullptr ? "" : name).Number(mode);
    if (name == nullptr || callback == nullptr || handle == nullptr) return Finish(line, false);
    const std::uint32_t session = Library().Init(name, callback, context, NoteAnswer);
    if (session == 0) return Finish(line, false);
    *handle = session;
    return Finish(line, true);
}

VEXCRI_PUBLIC std::int32_t criCommand(std::uint32_t handle, std::uint32_t command,
                                      std::uint32_t argument) {
    auto line = SessionLine("criCommand", handle, Library().ApplicationName(handle));
    line.Number(command).Number(argument);
    return Finish(line, Library().Command(handle, command));
}

VEXCRI_PUBLIC std::int32_t criTerminate(std::uint32_t handle, std::int32_t mode) {
    const auto ended = Library().Terminate(handle);
    auto line = SessionLine("criTerminate", handle, ended);
    line.Number(mode);
    return Finish(line, ended.has_value());
}
