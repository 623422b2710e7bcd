#include "sessions/vexAppSession.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "foundation/GUtils.h"
#include "vexcri.h"

namespace vexa {

namespace {

constexpr char kModule[] = "vexAppSession";
constexpr int kInitFailedLine = 36;
constexpr int kCommandFailedLine = 120;
constexpr int kUnexpectedLine = 154;
constexpr int kMismatchLine = 165;

constexpr std::int32_t kSuccess = 1;
constexpr std::int32_t kInitMode = 1;
constexpr std::int32_t kTerminateMode = 1;

SessionHolder FirstHolder(std::string_view name) {
    if (name == "DAQ") return SessionHolder::kActivated;
    if (name == "SPLASH") return SessionHolder::kDeactivated;
    return SessionHolder::kNobody;
}

}  // namespace

void vexAppSession::Init(const char* name_) {
    requestState = RequestState::kIdle;
    command = 0;
    argument = 0;
    response = 0;
    holder = SessionHolder::kNobody;
    error = SessionError::kNone;
    warned = Warning::kNone;
    handle = 0;
    inFlight = false;
    answered = false;
    released = false;
    name.fill('\0');

    const std::string_view given(name_);
    const bool nameFits = !given.empty() && given.size() < name.size();
    if (nameFits) {
        std::ranges::copy(given, name.begin());
        holder = FirstHolder(given);
        if (criInit(name.data(), kInitMode, Callback, this, &handle) == kSuccess) return;
    }
    error = SessionError::kInitFailed;
    handle = 0;
    Trace(kTraceLevel, "Initiator call to criInit failed.", kModule, kInitFailedLine);
}

void vexAppSession::Terminate() {
    if (handle == 0) return;
    criTerminate(handle, kTerminateMode);
    handle = 0;
}

bool vexAppSession::Request(SessionCommand requested, std::uint32_t requestArgument) {
    if (!IsIdle() || handle == 0) return false;
    if (requested == SessionCommand::kActivate) holder = SessionHolder::kActivated;
    if (requested == SessionCommand::kDeactivate) holder = SessionHolder::kDeactivated;
    command = static_cast<std::uint32_t>(requested);
    argument = requestArgument;
    released = false;
    requestState = RequestState::kWaiting;
    return true;
}

bool vexAppSession::IsBusy() const {
    return requestState == RequestState::kWaiting || requestState == RequestState::kSent;
}

void vexAppSession::Consume() {
    if (IsDone()) requestState = RequestState::kIdle;
}

void vexAppSession::Advance() {
    switch (requestState) {
        case RequestState::kWaiting:
            Send();
            break;
        case RequestState::kSent:
            if (!answered) break;
            requestState = RequestState::kDone;
            inFlight = false;
            break;
        case RequestState::kDone:
            if (released) requestState = RequestState::kIdle;
            break;
        case RequestState::kIdle:
            break;
    }
}

void vexAppSession::Send() {
    answered = false;
    inFlight = true;
    if (criCommand(handle, command, argument) == kSuccess) {
        requestState = RequestState::kSent;
        return;
    }
    inFlight = false;
    response = kNoSessionResponse;
    requestState = RequestState::kDone;
    if (error == SessionError::kNone) {
        error = SessionError::kCommandFailed;
        Trace(kTraceLevel, "criCommand() failed.", kModule, kCommandFailedLine);
    }
}

void vexAppSession::Callback(void* session, std::uint32_t command, std::int32_t response) noexcept {
    if (session != nullptr) static_cast<vexAppSession*>(session)->ReceiveAnswer(command, response);
}

void vexAppSession::ReceiveAnswer(std::uint32_t answeredCommand, std::int32_t answer) {
    if (answered || !inFlight) {
        if (!WarnOnce(Warning::kUnexpected)) return;
        Trace(kTraceLevel,
              "Unexpected criLib cmd response. Cmd = " + std::to_string(answeredCommand) +
                  ". Response = " + std::to_string(answer),
              kModule, kUnexpectedLine);
        return;
    }
    const std::uint32_t expected = command;
    if (answeredCommand == expected) {
        response = answer;
        answered = true;  // last: from here on Poll may read the response
        return;
    }
    if (!WarnOnce(Warning::kMismatch)) return;
    Trace(kTraceLevel,
          "criLib cmd received did not match expected value. Expected cmd = " +
              std::to_string(expected) + ". Received cmd = " + std::to_string(answeredCommand),
          kModule, kMismatchLine);
}

bool vexAppSession::WarnOnce(Warning warning) {
    Warning none = Warning::kNone;
    return warned.compare_exchange_strong(none, warning);
}

void AppSessions::Init() {
    daq.Init("DAQ");
    splash.Init("SPLASH");
    fgen.Init("FGEN");
}

void AppSessions::Poll() {
    daq.Poll();
    splash.Poll();
    fgen.Poll();
}

void AppSessions::Terminate() {
    daq.Terminate();
    splash.Terminate();
    fgen.Terminate();
}

}  // namespace vexa
