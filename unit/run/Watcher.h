// Tidies a unit's folder up when vexa-unit is killed and cannot do it itself.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "model/Descriptor.h"

namespace vexa::unit {

// Tells files apart, also such as have the same path one after the other.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity&) const = default;
};

// All zero when there is no such file.
[[nodiscard]] FileIdentity FileOf(int descriptor);
[[nodiscard]] FileIdentity FileOf(const std::string& path);
// Whether `path` is that file, and not a later one.
[[nodiscard]] bool IsSameFile(const std::string& path, const FileIdentity& file);

struct WatchedFolder {
    std::string path;
    bool made = false;  // is removed as well, if nothing else is in it
    std::vector<std::string> sockets;
};

// A process in a session of its own, so that what kills the unit's process group spares it. It
// notices the end of this process by a pipe, and keeps no other file open. Needs a process without
// other threads.
class Watcher {
  public:
    explicit Watcher(const WatchedFolder& folder);
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    ~Watcher() = default;

    // Nothing is left to tidy up: ends the process. Once.
    void Dismiss();

  private:
    pid_t child = -1;  // -1: there is none, and a killed unit leaves its sockets behind
    Descriptor alive;  // the pipe's end that closes with this process
};

}  // namespace vexa::unit
