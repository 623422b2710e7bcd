#include "vexahost/Error.h"

#include "vexahost/protocol/Replies.h"

namespace vexahost {

Error RefusedError(const std::string& what, std::uint8_t command, std::uint8_t code) {
    return {ErrorKind::kRefused,
            what + " was refused: error " + std::to_string(code) + ", " +
                std::string(vexa::ErrorMeaning(command, code)),
            command, code};
}

}  // namespace vexahost
