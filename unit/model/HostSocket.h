// The socket in a unit's folder on which hosts plug in.
#pragma once

#include <string>

#include "model/Descriptor.h"

namespace vexa::unit {

inline constexpr char kHostSocketName[] = "host.sock";

[[nodiscard]] std::string HostSocketPath(const std::string& folder);

// Listens on the socket in `folder`, in place of one that nobody listens on any more. Throws
// std::runtime_error, with a line for the user, when the path is too long for a socket, when
// another unit listens there, or when the socket cannot be made.
[[nodiscard]] Descriptor ListenForHosts(const std::string& folder);

// Whether `descriptor` is open and listens on the socket in `folder`.
[[nodiscard]] bool ListensForHosts(int descriptor, const std::string& folder);

}  // namespace vexa::unit
