// The control channel: the child named "Controller", which stands for the service itself and the
// link to the DAQ. It takes one command at a time and advances it by one step a pass. Main thread
// only.
#pragma once

#include <array>
#include <cstdint>

#include "daq/DAQIO.h"
#include "mux/MuxChildren.h"
#include "mux/MuxReplies.h"
#include "mux/Packet.h"
#include "mux/TunneledDevices.h"
#include "sessions/vexAppSession.h"

namespace vexa {

// The conversations with the three applications on the unit.
struct AppSessions {
    vexAppSession daq;
    vexAppSession splash;
    vexAppSession fgen;
};

class MuxController {
  public:
    MuxController(MuxChildren& children, MuxReplies& replies, DAQIO& daqLink,
                  AppSessions& sessions);

    // Idle, buffers cleared; `library` is the handle for opening devices.
    void Init(std::uint32_t library);

    // Closes everything, makes the controller entry anew with the id that the tunnel packet
    // `packet` brings, opens the DAQ link unless told not to, and replies.
    void Reopen(const std::uint8_t* packet);

    // Takes a tunnel packet for the controller as its next command; while one is under way it
    // prints a line and drops the packet.
    void Take(const std::uint8_t* packet);

    // Advances the command by one step.
    void Step();

    // Closes the DAQ link and every child's stream, then empties the table.
    void CloseAll();

  private:
    enum class State : std::uint8_t { kIdle = 1, kNewCommand = 2, kExecuting = 3 };
    // Places inside a command of several steps.
    enum class StepAt : std::uint8_t {
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

    void StepOpenChild();
    void StepCloseChild();
    void StepQueryDaqApplication();
    void StepTakeDaqOver();
    bool StepAskDaqApplication();
    void FreeSession(vexAppSession& session, StepAt next);
    void HandHardwareBack();

    // Each sends its reply to the command under way, which ends it.
    void FinishWithAck(ControllerCommand command);
    void FinishWithError(std::uint8_t command, ReplyError code);
    void FinishWithResult(std::uint8_t value);

    [[nodiscard]] const std::uint8_t* Command() const {
        return commandBuffer.data() + kTunnelHeaderSize;
    }

    MuxChildren& children;
    MuxReplies& replies;
    DAQIO& daqLink;
    AppSessions& sessions;
    TunneledDevices devices;
    State state = State::kIdle;
    StepAt step = StepAt::kStart;
    std::uint8_t queryResult = 0;
    std::array<std::uint8_t, kPacketBufferSize> commandBuffer{};  // the whole tunnel packet
};

}  // namespace vexa
