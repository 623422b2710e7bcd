// The folder that a running unit has its sockets in.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "model/Descriptor.h"
#include "run/Watcher.h"

namespace vexa::unit {

// Made and taken on construction; emptied of what the unit made, and removed if it was made here,
// on destruction, and also when this process is killed instead.
class UnitFolder {
  public:
    // An empty `path` stands for a fresh folder among the temporary ones. Throws UserError when the
    // folder cannot be made, when another unit runs in it or when its socket cannot be made.
    explicit UnitFolder(const std::string& path);
    UnitFolder(const UnitFolder&) = delete;
    UnitFolder& operator=(const UnitFolder&) = delete;
    ~UnitFolder();

    // Absolute.
    [[nodiscard]] const std::string& Path() const { return path; }
    [[nodiscard]] std::string HostSocketPath() const;

    // The listening sockets, for the program to inherit.
    [[nodiscard]] int HostSocket() const { return hostSocket.Get(); }
    [[nodiscard]] int ControlSocket() const { return controlSocket.Get(); }
    // The program has them: once that is gone, nobody can connect.
    void ReleaseSockets();

  private:
    void MakeTemporary();
    void Make(const std::string& path);
    // No two units in one folder, even while the first is starting. False when the folder has just
    // been removed by another unit.
    [[nodiscard]] bool Lock();
    void Listen();
    void RemoveAll() const;

    std::string path;
    bool made = false;
    Descriptor lock;
    Descriptor hostSocket;
    Descriptor controlSocket;
    std::vector<std::string> sockets;  // paths of those that were made
    std::unique_ptr<Watcher> watcher;
};

}  // namespace vexa::unit
