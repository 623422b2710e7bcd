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
// the end of this process by a socket, and keeps no other file open. Needs a process without other
// threads.
class Watcher {
  public:
    Watcher(const std::string& folder, const std::string& links);
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    // Ends the process; nothing is left to remove.
    ~Watcher();

  private:
    pid_t process = -1;         // -1: there is none, and a killed unit leaves its sockets behind
    testkit::Descriptor alive;  // the end of the connection that closes with this process
};

// Creates and locks the folder on construction. On destruction, or when this process is killed, the
// sockets and links are removed, and the folder, too, if a unit has created it. One thread at a
// time.
class UnitFolder {
  public:
    // An empty `path` stands for a new temporary folder, in $TMPDIR unless its name is too long for
    // a socket. Throws UserError when the folder cannot be made, when another unit runs in it or
    // when its sockets cannot be made.
    explicit UnitFolder(const std::string& path);
    UnitFolder(const UnitFolder&) = delete;
    UnitFolder& operator=(const UnitFolder&) = delete;
    ~UnitFolder();

    // Absolute.
    [[nodiscard]] const std::string& Path() const { return path; }

    // Makes a link called `name` to the file `target`, in a folder for the unit's links, whose path
    // can be an element of LD_LIBRARY_PATH and LD_PRELOAD. Returns that folder. Throws UserError.
    [[nodiscard]] std::string Link(const std::string& name, const std::string& target);

    // `folder` by a path that can be such an element: its own, or that of a link called `name`.
    [[nodiscard]] std::string Listable(const std::string& folder, const std::string& name);

    // The listening sockets, for the program to inherit.
    [[nodiscard]] const testkit::Descriptor& HostSocket() const { return hostSocket; }
    [[nodiscard]] const testkit::Descriptor& ControlSocket() const { return controlSocket; }
    // Closes them here, so that nobody can connect once the program has ended.
    void ReleaseSockets();
    // For a unit that hosts reach otherwise: removes the socket as well.
    void ReleaseHostSocket();
    // For a unit that cannot be controlled.
    void ReleaseControlSocket() { controlSocket.Close(); }

  private:
    void MakeTemporary();
    void Make(const std::string& path);
    // Notes in the folder that it was made by a unit.
    void Mark() const;
    void ChooseLinkFolder();
    // Keeps other units out, also while the first is starting. False when another unit has just
    // removed the folder.
    [[nodiscard]] bool Lock();
    void Listen();
    void RemoveAll() const;

    std::string path;
    std::string linkFolder;
    testkit::Descriptor lock;
    testkit::Descriptor hostSocket;
    testkit::Descriptor controlSocket;
    std::vector<std::string> sockets;  // paths of those that were made
    std::unique_ptr<Watcher> watcher;
};

}  // namespace vexa::unit
