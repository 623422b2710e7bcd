#include "vexahost/Error.h"

#include "mux/Packet.h"

namespace vexahost {

const char* ErrorCodeMeaning(std::uint8_t command, std::uint8_t code) {
    switch (static_cast<vexa::ReplyError>(code)) {
        case vexa::ReplyError::kDaqLinkClosed:
            return "the DAQ link is closed";
        case vexa::ReplyError::kUnknownCommand:
            return "the controller does not know this command";
        case vexa::ReplyError::kTooManyOrSession:
            return command == static_cast<std::uint8_t>(vexa::ControllerCommand::kOpenChild)
                       ? "ten children are open already"
                       : "the session with the DAQ application has failed";
        case vexa::ReplyError::kChildFailed:
            return "the child could not be opened or closed";
        case vexa::ReplyError::kTakeOverDaqFailed:
            return "the DAQ did not come up during the take-over";
        case vexa::ReplyError::kReopenDaqFailed:
            return "the DAQ did not come up when the controller was opened";
    }
    return "unknown error";
}

Error RefusedError(const std::string& what, std::uint8_t command, std::uint8_t code) {
    return {ErrorKind::kRefused,
            what + " was refused: error " + std::to_string(code) + ", " +
                ErrorCodeMeaning(command, code),
            command, code};
}

}  // namespace vexahost
