// The folder that a running unit has its sockets in.
#pragma once

#include <string>

#include "model/Descriptor.h"

namespace vexa::unit {

// Made and taken on construction; emptied of what the unit made, and removed if it was made here,
// on destruction.
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

    // The listening host socket, for the program to inherit.
    [[nodiscard]] int HostSocket() const { return hostSocket.Get(); }
    // The program has it: once that is gone, hosts are refused.
    void ReleaseHostSocket() { hostSocket = Descriptor(); }

  private:
    void MakeTemporary();
    void Make(const std::string& path);
    // No two units in one folder, even while the first is starting.
    void Lock();
    void Listen();
    void RemoveFolder();

    std::string path;
    bool made = false;
    Descriptor lock;
    Descriptor hostSocket;
};

}  // namespace vexa::unit
