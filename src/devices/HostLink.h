// The one link to the host computer: owns the transport, the buffer that its reader thread fills,
// and the ring that the packet parser reads. The rest of the service talks to the host through
// these functions alone.
//
//   host -> unit:  reader thread -> input buffer -> host ring -> HostLink_Input
//   unit -> host:  HostLink_Write -> output buffer of the device -> its writer thread
//
// Main thread only, except HostLink_Write and HostLink_WriteByte (any thread) and
// HostDeviceReadCallback (the reader thread).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "devices/GDeviceIO.h"
#include "foundation/Mutex.h"
#include "mux/MuxRing.h"

namespace vexa {

inline constexpr std::int32_t kHostBufferSize = 10000;

// The host link's part of the service state. Everything is null until HostLink_Open. The device
// comes last, because its reader fills the buffer until the device is destroyed.
struct HostLinkState {
    std::array<std::uint8_t, kHostBufferSize> hostRingStorage{};
    MuxRing hostRing;
    std::unique_ptr<CeilingMutex> inputLock;
    std::unique_ptr<GCircularBuffer> inputBuffer;
    // Keeps `device` alive while another thread queues bytes: writers share it, and the main thread
    // holds it alone to set or remove the device.
    SharedMutex deviceGate;
    // False before the device is removed, so that no further writer waits at the gate.
    std::atomic<bool> acceptsWrites{true};
    std::unique_ptr<GDeviceIO> device VEXA_GUARDED_BY(deviceGate);
};

// Sets the record that all functions below work on. With null every one of them reports failure or
// 0. Must be called before another thread uses the link.
void HostLink_Use(HostLinkState* state);

// Builds device and buffers and opens the transport. 1 when it opened, else 0; the objects stay
// until HostLink_Close in both cases.
int HostLink_Open();

// The same over a transport that the caller made, which opens `port`: for hosts that are connected
// by a serial line or a network instead of the gadget.
int HostLink_OpenDevice(std::unique_ptr<GDeviceIO> device, const GPortRef& port);

// Ends the transport's threads and destroys what HostLink_Open made. A HostLink_Write under way on
// another thread finishes first; later ones return 0.
void HostLink_Close();

// The read callback of the transport: stores `count` bytes in the input buffer `context`, dropping
// the oldest beyond 10000. Returns `count`, 0 without a buffer.
int HostDeviceReadCallback(const unsigned char* data, int count, void* context);

// Queues `count` bytes for the host without waiting for the link. Returns the low 8 bits of `count`
// (callers send packets, at most 255 bytes), 0 on failure.
unsigned char HostLink_Write(const unsigned char* data, int count);
unsigned char HostLink_WriteByte(unsigned char value);

// Moves received bytes from the input buffer to the host ring, as far as there is room, at most
// 10000 bytes.
void HostLink_TakeInput();

// Bytes held in the host ring.
std::uint16_t HostLink_BytesAvailable();

// Removes one byte from the host ring and returns it; only after HostLink_BytesAvailable returned
// non-zero. The service has no caller: its parser reads runs of bytes with HostLink_Input.
unsigned char HostLink_ReadByte();

// The oldest bytes in the host ring, as many as are contiguous; empty when none is held. Valid
// until the ring is read or written.
std::span<const std::uint8_t> HostLink_Input();

// Removes the `count` oldest bytes from the host ring, at most as many as HostLink_Input gives.
void HostLink_TakeBytes(std::size_t count);

// Drops output that is queued. Always 1.
int HostLink_Purge();

// Whether the transport is open, and whether a host is at the other end: 1 or 0.
unsigned char HostLink_IsOpen();
unsigned char HostLink_IsLinkUp();

// Hex dumps "Input from Host - tag: ..." and "Output to Host - tag: ..." on standard output. The
// count is truncated to a signed 16-bit value. DumpHostOutput has no caller in the service.
void DumpHostInput(const unsigned char* data, int count, const char* tag);
void DumpHostOutput(const unsigned char* data, int count, const char* tag);

}  // namespace vexa
