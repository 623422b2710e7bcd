// Devices of the access library that the host has opened: byte streams (types 8, 9 and 11) and HID
// devices with 8-byte reports (types 2, 3 and 4). What a device sends goes to the host in tunnel
// packets, directly from the library's thread.
#pragma once

#include <cstdint>
#include <optional>

#include "mux/MuxChildren.h"
#include "protocol/Packet.h"
#include "protocol/Replies.h"

namespace vexa {

class TunneledDevices {
  public:
    // `library_` is the library handle for all calls. It may be given its value later, before the
    // first Open.
    TunneledDevices(const std::uint32_t& library_, MuxChildren& children_)
        : library(library_), children(children_) {}

    // Executes an open-child command. The device opened is the first attached one of the type that
    // the name stands for. Returns the error to reply with, or nothing when the child is open. Main
    // thread only.
    std::optional<ReplyError> Open(InnerBuffer command);

    // Closes the stream of a child, if it is of a type that has one. Main thread only.
    static void Close(const MuxChild& child);

  private:
    bool FindDevice(std::uint32_t type, std::span<char> name) const;

    const std::uint32_t& library;
    MuxChildren& children;
};

// The read callbacks for the two kinds of device; `context` carries the child's id. They work on
// the children that HostVEXMuxController_Init was given last. Return 0 when the block was accepted,
// -1 when it was refused: the child is gone, or the block is too long (246 bytes and more; HID: not
// 8). Library threads.
std::int32_t TunneledDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                        void* context) noexcept;
std::int32_t TunneledHIDDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                           void* context) noexcept;

}  // namespace vexa
