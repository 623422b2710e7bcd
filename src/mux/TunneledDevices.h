// Devices of the access library that the host has opened: byte streams (types 8, 9 and 11) and HID
// devices with 8-byte reports (types 2, 3 and 4). What a device sends goes to the host in tunnel
// packets, straight from the library's thread.
#pragma once

#include <cstdint>
#include <optional>

#include "mux/MuxChildren.h"
#include "mux/Packet.h"

namespace vexa {

class TunneledDevices {
  public:
    explicit TunneledDevices(MuxChildren& children_) : children(children_) {}

    // The library handle for all calls; given before the first Open.
    void UseLibrary(std::uint32_t library_) { library = library_; }

    // Carries out an open-child command: `command` is the inner packet, zero past its length. The
    // device opened is the first attached one of the type that the name stands for. Returns the
    // error to reply with, or nothing when the child is open. Main thread.
    std::optional<ReplyError> Open(const std::uint8_t* command);

    // Closes the stream of a child, if it is of a type that has one. Main thread.
    static void Close(const MuxChild& child);

  private:
    bool FindDevice(std::uint32_t type, char* name) const;

    MuxChildren& children;
    std::uint32_t library = 0;
};

// The read callbacks for the two kinds of device; `context` carries the child's id. They work on
// the children that HostVEXMuxController_Init was given last. Return 0 when the block was taken, -1
// when it was refused: the child is gone, or the block is too long (246 bytes and more; HID: not
// 8). Library threads.
std::int32_t TunneledDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                        void* context);
std::int32_t TunneledHIDDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                           void* context);

}  // namespace vexa
