// The sockets in a unit's folder: one on which hosts plug in, one that controls the unit.
#pragma once

#include <string>

#include "model/Descriptor.h"

namespace vexa::unit {

[[nodiscard]] std::string HostSocketPath(const std::string& folder);
[[nodiscard]] std::string ControlSocketPath(const std::string& folder);

// Listens on the socket at `path`, in place of one that nobody listens on any more. Throws
// std::runtime_error, with a line for the user, when the path is too long for a socket, when
// another unit listens there, or when the socket cannot be made.
[[nodiscard]] Descriptor ListenOn(const std::string& path);

// Whether `descriptor` is open and listens on the socket at `path`.
[[nodiscard]] bool ListensOn(int descriptor, const std::string& path);

// A connection to the socket at `path`; owns nothing, with errno, when there is none to be had.
[[nodiscard]] Descriptor ConnectTo(const std::string& path);

}  // namespace vexa::unit
