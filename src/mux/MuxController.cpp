#include "mux/MuxController.h"

#include <algorithm>
#include <cstdio>

#include "VEXA.h"
#include "devices/HostLink.h"

namespace vexa {

namespace {

constexpr std::uint32_t kControllerDeviceType = 5;

constexpr std::uint32_t kSessionTimeMs = 1000;
constexpr std::uint32_t kDeactivateDaqTimeMs = 10000;
constexpr std::int32_t kApplicationHasHardware = 1;

}  // namespace

MuxController::MuxController(MuxChildren& children_, MuxReplies& replies_, DAQIO& daqLink_,
                             AppSessions& sessions_)
    : children(children_),
      replies(replies_),
      daqLink(daqLink_),
      sessions(sessions_),
      devices(children_) {}

void MuxController::Init(std::uint32_t library) {
    devices.UseLibrary(library);
    state = State::kIdle;
    step = StepAt::kStart;
    queryResult = 0;
    commandBuffer.fill(0);
}

void MuxController::CloseAll() {
    MuxChild child;
    for (std::size_t index = 0; children.Get(index, child); ++index) {
        if (child.is_controller != 0) {
            daqLink.Close();
        } else if (child.stream != 0) {
            VEXA_Device_Stream_Close(child.stream);
        }
    }
    // A take-over that a disconnect interrupted opens the link with no controller entry to stand
    // for it.
    daqLink.Close();
    children.Clear();
}

void MuxController::Reopen(const std::uint8_t* packet) {
    const std::uint8_t* command = packet + kTunnelHeaderSize;
    if (children.Count() > 1) {
        DumpHostInput(packet, packet[kLengthOffset],
                      "Reopening Controller and abandoning children.");
    }
    CloseAll();
    state = State::kIdle;
    step = StepAt::kStart;
    sessions.daq.Release();
    sessions.splash.Release();

    MuxChild controller;
    controller.id = LoadLe32(command + kCommandChildIdOffset);
    controller.is_controller = 1;
    controller.device_type = kControllerDeviceType;
    children.Add(controller);

    const bool withoutDaq = command[kCommandOffset] ==
                                static_cast<std::uint8_t>(ControllerCommand::kReopenController) &&
                            command[kCommandNameLengthOffset] == 0;
    if (withoutDaq || daqLink.Open()) {
        replies.SendControllerAck(command[kCommandOffset], command[kSequenceOffset]);
    } else {
        replies.SendControllerError(command[kCommandOffset], command[kSequenceOffset],
                                    ReplyError::kReopenDaqFailed);
    }
}

void MuxController::Take(const std::uint8_t* packet) {
    if (state != State::kIdle) {
        std::puts("VEXADevMgr controller ignored new cmd because it was busy.");
        return;
    }
    if (LoadLe32(packet + kTunnelIdOffset) != children.ControllerId()) return;
    std::copy_n(packet, kPacketBufferSize, commandBuffer.begin());
    state = State::kNewCommand;
}

void MuxController::Step() {
    if (state == State::kNewCommand) {
        step = StepAt::kStart;
        state = State::kExecuting;
    }
    if (state != State::kExecuting) return;
    switch (static_cast<ControllerCommand>(Command()[kCommandOffset])) {
        case ControllerCommand::kOpenChild:
            return StepOpenChild();
        case ControllerCommand::kCloseChild:
            return StepCloseChild();
        case ControllerCommand::kQueryDaqApplication:
            return StepQueryDaqApplication();
        case ControllerCommand::kTakeDaqOver:
            return StepTakeDaqOver();
        case ControllerCommand::kReopenController:  // never gets here: it reopens instead
            break;
    }
    FinishWithError(Command()[kCommandOffset], ReplyError::kUnknownCommand);
}

void MuxController::StepOpenChild() {
    const auto error = devices.Open(Command());
    if (error) {
        FinishWithError(Command()[kCommandOffset], *error);
    } else {
        FinishWithAck(ControllerCommand::kOpenChild);
    }
}

void MuxController::StepCloseChild() {
    const std::uint32_t id = LoadLe32(Command() + kCommandChildIdOffset);
    MuxChild child;
    if (!children.Find(id, child)) {
        // Hosts rely on it: the error comes under the open command.
        FinishWithError(static_cast<std::uint8_t>(ControllerCommand::kOpenChild),
                        ReplyError::kChildFailed);
        return;
    }
    TunneledDevices::Close(child);
    FinishWithAck(ControllerCommand::kCloseChild);
    if (id == children.ControllerId()) {
        CloseAll();
        HandHardwareBack();
    } else {
        children.Remove(id);
    }
}

void MuxController::HandHardwareBack() {
    sessions.splash.Request(SessionCommand::kDeactivate, kSessionTimeMs);
    sessions.splash.Release();
    sessions.daq.Request(SessionCommand::kActivate, kSessionTimeMs);
    sessions.daq.Release();
}

void MuxController::FreeSession(vexAppSession& session, StepAt next) {
    if (session.IsIdle()) {
        step = next;
    } else {
        session.Release();
    }
}

// The first steps of both commands that begin by asking the "DAQ" application. False when the
// command is past them.
bool MuxController::StepAskDaqApplication() {
    switch (step) {
        case StepAt::kStart:
            if (sessions.daq.HasError()) {
                FinishWithError(Command()[kCommandOffset], ReplyError::kTooManyOrSession);
            } else {
                step = StepAt::kFreeDaqSession;
            }
            return true;
        case StepAt::kFreeDaqSession:
            FreeSession(sessions.daq, StepAt::kQueryDaq);
            return true;
        case StepAt::kQueryDaq:
            sessions.daq.Request(SessionCommand::kQuery, kSessionTimeMs);
            step = StepAt::kAwaitQuery;
            return true;
        default:
            return false;
    }
}

void MuxController::StepQueryDaqApplication() {
    if (StepAskDaqApplication()) return;
    if (step == StepAt::kAwaitQuery) {
        if (!sessions.daq.IsDone()) return;
        queryResult = sessions.daq.Response() == kApplicationHasHardware ? 1 : 0;
        sessions.daq.Consume();
        step = StepAt::kDeactivateDaqOrReply;
        return;
    }
    FinishWithResult(queryResult);
}

void MuxController::StepTakeDaqOver() {
    if (StepAskDaqApplication()) return;
    switch (step) {
        case StepAt::kAwaitQuery:
            if (!sessions.daq.IsDone()) return;
            if (sessions.daq.Response() == kNoSessionResponse) {
                sessions.daq.SetHolder(SessionHolder::kDeactivated);
                step = StepAt::kOpenDaqLink;
            } else {
                step = StepAt::kDeactivateDaqOrReply;
            }
            sessions.daq.Consume();
            return;
        case StepAt::kDeactivateDaqOrReply:
            sessions.daq.Request(SessionCommand::kDeactivate, kDeactivateDaqTimeMs);
            step = StepAt::kAwaitDeactivation;
            return;
        case StepAt::kAwaitDeactivation:
            if (!sessions.daq.IsDone()) return;
            sessions.daq.Consume();
            step = StepAt::kOpenDaqLink;
            return;
        case StepAt::kOpenDaqLink:
            if (daqLink.Open()) {
                step = StepAt::kFreeSplashSession;
            } else {
                FinishWithError(Command()[kCommandOffset], ReplyError::kTakeOverDaqFailed);
            }
            return;
        case StepAt::kFreeSplashSession:
            FreeSession(sessions.splash, StepAt::kActivateSplash);
            return;
        case StepAt::kActivateSplash:
            sessions.splash.Request(SessionCommand::kActivate, kSessionTimeMs);
            sessions.splash.Release();
            step = StepAt::kNotifyFgen;
            return;
        default:
            sessions.fgen.Request(SessionCommand::kNotify, kSessionTimeMs);
            sessions.fgen.Release();
            FinishWithAck(ControllerCommand::kTakeDaqOver);
    }
}

void MuxController::FinishWithAck(ControllerCommand command) {
    replies.SendControllerAck(static_cast<std::uint8_t>(command), Command()[kSequenceOffset]);
    state = State::kIdle;
}

void MuxController::FinishWithError(std::uint8_t command, ReplyError code) {
    replies.SendControllerError(command, Command()[kSequenceOffset], code);
    state = State::kIdle;
}

void MuxController::FinishWithResult(std::uint8_t value) {
    replies.SendControllerResult(Command()[kCommandOffset], Command()[kSequenceOffset], value);
    state = State::kIdle;
}

}  // namespace vexa
