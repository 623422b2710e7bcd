// The folder of a running unit, in which it has its sockets.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "testkit/Descriptor.h"

namespace vexa::unit {

// Removes what a unit has in its folder when vexa-unit is killed and cannot do so itself. It is a
// process in a session of its own, so that killing the unit's process group spares it. It notices
// the end of this process by a pipe, and keeps no other file open. Needs a process without other
// threads.
class Watcher {
  public:
    // `made`: the folder is removed as well, if nothing else is in it.
    Watcher(const std::string& folder, bool made);
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    // Ends the process; nothing is left to remove.
    ~Watcher();

  private:
    pid_t process = -1;         // -1: there is none, and a killed unit leaves its sockets behind
    testkit::Descriptor alive;  // the end of the pipe that closes with this process
};

// Creates and locks the folder on construction. On destruction, or when this process is killed, the
// sockets and links are removed, and the folder, too, if it was created here. One thread at a time.
class UnitFolder {
  public:
    // An empty `path` stands for a new temporary folder. Throws UserError when the folder cannot be
    // made, when another unit runs in it or when its sockets cannot be made.
    explicit UnitFolder(const std::string& path);
    UnitFolder(const UnitFolder&) = delete;
    UnitFolder& operator=(const UnitFolder&) = delete;
    ~UnitFolder();

    // Absolute.
    [[nodiscard]] const std::string& Path() const { return path; }

    // Makes a link called `name` to the file `target`, in a folder of its own within this one.
    // Returns that folder. Throws UserError.
    [[nodiscard]] std::string Link(const std::string& name, const std::string& target);

    // The listening sockets, for the program to inherit.
    [[nodiscard]] const testkit::Descriptor& HostSocket() const { return hostSocket; }
    [[nodiscard]] const testkit::Descriptor& ControlSocket() const { return controlSocket; }
    // Closes them here, so that nobody can connect once the program has ended.
    void ReleaseSockets();
    // For a unit that cannot be controlled.
    void ReleaseControlSocket() { controlSocket.Close(); }

  private:
    void MakeTemporary();
    void Make(const std::string& path);
    // Keeps other units out, also while the first is starting. False when another unit has just
    // removed the folder.
    [[nodiscard]] bool Lock();
    void Listen();
    void RemoveAll() const;

    std::string path;
    bool made = false;
    testkit::Descriptor lock;
    testkit::Descriptor hostSocket;
    testkit::Descriptor controlSocket;
    std::vector<std::string> sockets;  // paths of those that were made
    bool hasLinks = false;
    std::unique_ptr<Watcher> watcher;
};

}  // namespace vexa::unit
