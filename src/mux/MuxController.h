// The control channel: the child named "Controller", which stands for the service itself and the
// link to the DAQ. It executes one command at a time, one step in each pass of the main loop. Main
// thread only.
#pragma once

#include <array>
#include <cstdint>

#include "daq/DAQIO.h"
#include "mux/MuxChildren.h"
#include "mux/MuxReplies.h"
#include "mux/TunneledDevices.h"
#include "sessions/vexAppSession.h"

namespace vexa {

class MuxController {
  public:
    // `library` is the handle for opening devices; its value may be set later.
    MuxController(const std::uint32_t& library, MuxChildren& children, MuxReplies& replies,
                  DAQIO& daqLink, AppSessions& sessions);

    // Idle, buffers cleared.
    void Init();

    // Closes everything, makes the controller entry anew with the id that the tunnel packet
    // `packet` gives, opens the DAQ link unless the packet says not to, and replies.
    void Reopen(PacketBuffer packet);

    // Accepts a tunnel packet for the controller as its next command. While a command is executing
    // it prints a line and drops the packet.
    void Accept(PacketBuffer packet);

    // Executes one step of the command.
    void Step();

    // Closes the DAQ link and every child's stream, then empties the table.
    void CloseAll();

  private:
    enum class State : std::uint8_t { kIdle = 1, kNewCommand = 2, kExecuting = 3 };
    enum class StepAt : std::uint8_t;  // the place inside a command of several steps
    struct Steps;                      // what each command does, a function each

    void FreeSession(vexAppSession& session, StepAt next);

    // Each sends its reply to the command that is executing, which ends it.
    void FinishWithAck();
    void FinishWithError(std::uint8_t command, ReplyError code);
    void FinishWithResult(std::uint8_t value);

    [[nodiscard]] InnerBuffer Command() const { return InnerPacket(commandBuffer); }
    [[nodiscard]] std::uint8_t CommandNumber() const { return Command()[kCommandOffset]; }

    MuxChildren& children;
    MuxReplies& replies;
    DAQIO& daqLink;
    AppSessions& sessions;
    TunneledDevices devices;
    State state = State::kIdle;
    StepAt step{};
    std::uint8_t queryResult = 0;
    std::array<std::uint8_t, kPacketBufferSize> commandBuffer{};  // the whole tunnel packet
};

}  // namespace vexa
