#include "mux/MuxController.h"

#include <algorithm>
#include <cstdio>

#include "VEXA.h"
#include "devices/HostLink.h"
#include "protocol/Commands.h"

namespace vexa {

namespace {

constexpr std::uint32_t kControllerDeviceType = 5;

constexpr std::uint32_t kSessionTimeMs = 1000;
constexpr std::uint32_t kDeactivateDaqTimeMs = 10000;
constexpr std::int32_t kApplicationHasHardware = 1;

}  // namespace

enum class MuxController::StepAt : std::uint8_t {
    kStart = 0,
    kFreeDaqSession = 1,
    kQueryDaq = 2,
    kAwaitQuery = 3,
    kDeactivateDaqOrReply = 10,
    kAwaitDeactivation = 11,
    kOpenDaqLink = 50,
    kFreeSplashSession = 60,
    kActivateSplash = 61,
    kNotifyFgen = 62,
};

struct MuxController::Steps {
    static void OpenChild(MuxController& self);
    static void CloseChild(MuxController& self);
    static void QueryDaqApplication(MuxController& self);
    static void TakeDaqOver(MuxController& self);

  private:
    static bool AskDaqApplication(MuxController& self);
    static void RequestHardwareReturn(AppSessions& sessions);
};

MuxController::MuxController(const std::uint32_t& library, MuxChildren& children_,
                             MuxReplies& replies_, DAQIO& daqLink_, AppSessions& sessions_)
    : children(children_),
      replies(replies_),
      daqLink(daqLink_),
      sessions(sessions_),
      devices(library, children_) {}

void MuxController::Init() {
    state = State::kIdle;
    step = StepAt::kStart;
    queryResult = 0;
    commandBuffer.fill(0);
}

void MuxController::CloseAll() {
    const MuxChildTable open = children.Copy();
    for (const MuxChild& child : std::span(open.entries).first(open.count)) {
        if (child.is_controller != 0) {
            daqLink.Close();
        } else if (child.stream != 0) {
            VEXA_Device_Stream_Close(child.stream);
        }
    }
    // Without a controller entry the link may be open all the same: a take-over that a disconnect
    // interrupted opens it.
    daqLink.Close();
    children.Clear();
}

void MuxController::Reopen(PacketBuffer packet) {
    const InnerBuffer command = InnerPacket(packet);
    if (children.Count() > 1) {
        DumpHostInput(packet.data(), packet[kLengthOffset],
                      "Reopening Controller and abandoning children.");
    }
    CloseAll();
    state = State::kIdle;
    step = StepAt::kStart;
    sessions.daq.Release();
    sessions.splash.Release();

    MuxChild controller;
    controller.id = LoadLe32(command, kCommandChildIdOffset);
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

void MuxController::Accept(PacketBuffer packet) {
    if (state != State::kIdle) {
        std::puts("VEXADevMgr controller ignored new cmd because it was busy.");
        return;
    }
    if (LoadLe32(packet, kTunnelIdOffset) != children.ControllerId()) return;
    std::ranges::copy(packet, commandBuffer.begin());
    state = State::kNewCommand;
}

void MuxController::Step() {
    if (state == State::kNewCommand) {
        step = StepAt::kStart;
        state = State::kExecuting;
    }
    if (state != State::kExecuting) return;
    switch (static_cast<ControllerCommand>(CommandNumber())) {
        case ControllerCommand::kOpenChild:
            return Steps::OpenChild(*this);
        case ControllerCommand::kCloseChild:
            return Steps::CloseChild(*this);
        case ControllerCommand::kQueryDaqApplication:
            return Steps::QueryDaqApplication(*this);
        case ControllerCommand::kTakeDaqOver:
            return Steps::TakeDaqOver(*this);
        case ControllerCommand::kReopenController:  // never gets here: it reopens instead
            break;
    }
    FinishWithError(CommandNumber(), ReplyError::kUnknownCommand);
}

void MuxController::Steps::OpenChild(MuxController& self) {
    const auto error = self.devices.Open(self.Command());
    if (error) {
        self.FinishWithError(self.CommandNumber(), *error);
    } else {
        self.FinishWithAck();
    }
}

void MuxController::Steps::CloseChild(MuxController& self) {
    const std::uint32_t id = LoadLe32(self.Command(), kCommandChildIdOffset);
    MuxChild child;
    if (!self.children.Find(id, child)) {
        // Hosts rely on it: the error names the open command.
        self.FinishWithError(static_cast<std::uint8_t>(ControllerCommand::kOpenChild),
                             ReplyError::kChildFailed);
        return;
    }
    TunneledDevices::Close(child);
    self.FinishWithAck();
    if (id == self.children.ControllerId()) {
        self.CloseAll();
        RequestHardwareReturn(self.sessions);
    } else {
        self.children.Remove(id);
    }
}

// The host has given the hardware up: both applications are told, whoever holds it.
void MuxController::Steps::RequestHardwareReturn(AppSessions& sessions) {
    sessions.splash.Request(SessionCommand::kDeactivate, kSessionTimeMs);
    sessions.splash.Release();
    sessions.daq.Request(SessionCommand::kActivate, kSessionTimeMs);
    sessions.daq.Release();
}

// The first steps of both commands that begin with a query to the "DAQ" application. False when the
// command is past them.
bool MuxController::Steps::AskDaqApplication(MuxController& self) {
    switch (self.step) {
        case StepAt::kStart:
            if (self.sessions.daq.HasError()) {
                self.FinishWithError(self.CommandNumber(), ReplyError::kRefused);
            } else {
                self.step = StepAt::kFreeDaqSession;
            }
            return true;
        case StepAt::kFreeDaqSession:
            self.FreeSession(self.sessions.daq, StepAt::kQueryDaq);
            return true;
        case StepAt::kQueryDaq:
            self.sessions.daq.Request(SessionCommand::kQuery, kSessionTimeMs);
            self.step = StepAt::kAwaitQuery;
            return true;
        default:
            return false;
    }
}

void MuxController::Steps::QueryDaqApplication(MuxController& self) {
    if (AskDaqApplication(self)) return;
    if (self.step == StepAt::kAwaitQuery) {
        if (!self.sessions.daq.IsDone()) return;
        self.queryResult = self.sessions.daq.Response() == kApplicationHasHardware ? 1 : 0;
        self.sessions.daq.Consume();
        self.step = StepAt::kDeactivateDaqOrReply;
        return;
    }
    self.FinishWithResult(self.queryResult);
}

void MuxController::Steps::TakeDaqOver(MuxController& self) {
    if (AskDaqApplication(self)) return;
    AppSessions& sessions = self.sessions;
    switch (self.step) {
        case StepAt::kAwaitQuery:
            if (!sessions.daq.IsDone()) return;
            if (sessions.daq.Response() == kNoSessionResponse) {
                sessions.daq.SetHolder(SessionHolder::kDeactivated);
                self.step = StepAt::kOpenDaqLink;
            } else {
                self.step = StepAt::kDeactivateDaqOrReply;
            }
            sessions.daq.Consume();
            return;
        case StepAt::kDeactivateDaqOrReply:
            sessions.daq.Request(SessionCommand::kDeactivate, kDeactivateDaqTimeMs);
            self.step = StepAt::kAwaitDeactivation;
            return;
        case StepAt::kAwaitDeactivation:
            if (!sessions.daq.IsDone()) return;
            sessions.daq.Consume();
            self.step = StepAt::kOpenDaqLink;
            return;
        case StepAt::kOpenDaqLink:
            if (self.daqLink.Open()) {
                self.step = StepAt::kFreeSplashSession;
            } else {
                self.FinishWithError(self.CommandNumber(), ReplyError::kTakeOverDaqFailed);
            }
            return;
        case StepAt::kFreeSplashSession:
            self.FreeSession(sessions.splash, StepAt::kActivateSplash);
            return;
        case StepAt::kActivateSplash:
            sessions.splash.Request(SessionCommand::kActivate, kSessionTimeMs);
            sessions.splash.Release();
            self.step = StepAt::kNotifyFgen;
            return;
        default:
            sessions.fgen.Request(SessionCommand::kNotify, kSessionTimeMs);
            sessions.fgen.Release();
            self.FinishWithAck();
    }
}

void MuxController::FreeSession(vexAppSession& session, StepAt next) {
    if (session.IsIdle()) {
        step = next;
    } else {
        session.Release();
    }
}

void MuxController::FinishWithAck() {
    replies.SendControllerAck(CommandNumber(), Command()[kSequenceOffset]);
    state = State::kIdle;
}

void MuxController::FinishWithError(std::uint8_t command, ReplyError code) {
    replies.SendControllerError(command, Command()[kSequenceOffset], code);
    state = State::kIdle;
}

void MuxController::FinishWithResult(std::uint8_t value) {
    replies.SendControllerResult(CommandNumber(), Command()[kSequenceOffset], value);
    state = State::kIdle;
}

}  // namespace vexa
