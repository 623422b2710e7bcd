// "vexa-unit play": plays the unit's side of a recording to a host program.
#pragma once

#include <string>

namespace vexa::unit {

struct PlayOptions {
    std::string recording;  // file
    std::string folder;     // for the host socket; empty: a temporary one
    std::string patience;   // a time such as "5s"; empty: the default
    bool atPace = false;
};

// Returns the exit status: 0, or kRefusedStatus when the host did not do as recorded. Throws
// UserError when the recording cannot be read or the socket cannot be made.
[[nodiscard]] int Play(const PlayOptions& options);

}  // namespace vexa::unit
