// How a unit is found: the sockets in its folder, and the variables by which vexa-unit passes the
// unit's description to the stand-ins in the program's process.
#pragma once

#include <string>

#include "testkit/Descriptor.h"

namespace vexa::unit {

inline constexpr char kFolderVariable[] = "VEXA_UNIT_DIR";                // folder of the sockets
inline constexpr char kScenarioVariable[] = "VEXA_UNIT_SCENARIO";         // file; unset: built in
inline constexpr char kCallLogVariable[] = "VEXA_UNIT_JOURNAL";           // file; unset: none
inline constexpr char kHostSocketVariable[] = "VEXA_UNIT_HOST_FD";        // inherited, listening
inline constexpr char kControlSocketVariable[] = "VEXA_UNIT_CONTROL_FD";  // inherited, listening

// The socket into which hosts plug, and the one that controls the unit.
[[nodiscard]] std::string HostSocketPath(const std::string& folder);
[[nodiscard]] std::string ControlSocketPath(const std::string& folder);

// Whether `path` is short enough for a socket.
[[nodiscard]] bool FitsSocket(const std::string& path);

// Creates a listening socket at `path`, replacing a stale one. Throws std::runtime_error, with a
// line for the user, when the path is too long for a socket, when another unit listens there, when
// a file that is no socket is there, or when the socket cannot be made.
[[nodiscard]] testkit::Descriptor ListenOn(const std::string& path);

// Whether anything listens on the socket at `path`; it does not have to accept.
[[nodiscard]] bool IsListening(const std::string& path);

// Removes the socket at `path` if it is stale: nothing listens on it any more. False when something
// does.
bool RemoveStaleSocket(const std::string& path);

// Removes the socket at `path`; a file of another kind stays.
void RemoveSocket(const std::string& path);

// Whether `descriptor` is open and listens on the socket at `path`.
[[nodiscard]] bool ListensOn(int descriptor, const std::string& path);

// Connects to the socket at `path`. On failure the descriptor is empty and errno is set: EAGAIN
// when the unit has not accepted the connection within 10 s. As long does a send wait for the unit.
[[nodiscard]] testkit::Descriptor ConnectTo(const std::string& path);

// Answers a host that another one has the unit, and nothing else. The result stays open until the
// host has left, so that what it sends meanwhile does not cost it the answer.
[[nodiscard]] testkit::Descriptor RefuseHost(testkit::Descriptor host);

// How long to leave a listening socket alone when there is no descriptor left for who connects.
inline constexpr int kRetryAcceptMs = 100;
// Whether that is what `error` of accept says.
[[nodiscard]] bool HasNoDescriptor(int error);

}  // namespace vexa::unit
