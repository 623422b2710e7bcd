// What can go wrong in a conversation with a unit.
#pragma once

#include <cstdint>
#include <string>

namespace vexahost {

enum class ErrorKind {
    kInvalidArgument,    // a wrong argument; nothing was sent
    kCannotConnect,      // no connection could be made
    kRefused,            // the unit answered with an error; `command` and `code` say which
    kTimeout,            // no answer in time; the link may still work
    kLinkLost,           // the connection has ended, from either side
    kProtocolViolation,  // the unit sent invalid bytes; the link cannot be used any more
    kBusy,               // another host is connected to the unit
    kNotOpen,            // the controller or the child is not open; nothing was sent
    kCancelled,          // ClientOptions::isCancelled ended the wait
};

struct Error {
    ErrorKind kind;
    std::string message;       // one line for a person, without a final full stop
    std::uint8_t command = 0;  // kRefused: the command named in the reply
    std::uint8_t code = 0;     // kRefused: the error code
};

// The error for a refused command: "<what> was refused: error <code>, <meaning>".
[[nodiscard]] Error RefusedError(const std::string& what, std::uint8_t command, std::uint8_t code);

}  // namespace vexahost
