// The one link to the host computer: owns the transport, the buffer that its reader thread fills,
// and the ring that the packet parser reads. The rest of the service talks to the host through
// these functions alone.
//
//   host -> unit:  reader thread -> input buffer -> host ring -> HostLink_Input
//   unit -> host:  HostLink_Write -> output buffer of the device -> its writer thread
//
// All functions belong to the main thread but HostLink_Write and HostLink_WriteByte, which any
// thread may call at any time, and HostDeviceReadCallback, which runs on the reader thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <span>

#include "devices/GDeviceIO.h"
#include "mux/MuxRing.h"

namespace vexa {

inline constexpr std::int32_t kHostBufferSize = 10000;

// The host link's part of the service state. Everything is null until HostLink_Open.
struct HostLinkState {
    // Guards `device` against writers of other threads while it is set or taken away: they hold it
    // shared for the length of one queueing.
    std::shared_mutex deviceGate;
    // False once the device is to go, so that no further writer goes for the gate and keeps it.
    std::atomic<bool> takesWrites{true};
    std::unique_ptr<GDeviceIO> device;
    std::unique_ptr<CeilingMutex> inputLock;
    std::unique_ptr<GCircularBuffer> inputBuffer;
    MuxRing hostRing;
    std::array<std::uint8_t, kHostBufferSize> hostRingStorage{};
};

// Names the record that all functions below work on; null for none, when every one of them reports
// failure or 0. Called before any other thread knows of the link.
void HostLink_Use(HostLinkState* state);

// Builds device and buffers and opens the transport. 1 when it opened, else 0: what was built stays
// until HostLink_Close.
int HostLink_Open();

// The same over a transport of the caller's making, which opens `port`; for hosts that are reached
// by another link than the gadget's.
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

// Moves what the transport has read on to the host ring, as far as there is room, at most 10000
// bytes.
void HostLink_TakeInput();

// Bytes held in the host ring.
std::uint16_t HostLink_BytesAvailable();

// Takes one byte from the host ring; only after HostLink_BytesAvailable returned non-zero.
unsigned char HostLink_ReadByte();

// The oldest bytes in the host ring, as many as stand in one piece; empty when none is held. Valid
// until bytes are taken from the ring or moved into it.
std::span<const std::uint8_t> HostLink_Input();

// Removes the `count` oldest bytes from the host ring, at most as many as HostLink_Input gives.
void HostLink_TakeBytes(std::size_t count);

// Drops output that is queued. Always 1.
int HostLink_Purge();

// Whether the transport is open, and whether a host is at the other end: 1 or 0.
unsigned char HostLink_IsOpen();
unsigned char HostLink_IsLinkUp();

// Hex dumps "Input from Host - tag: ..." and "Output to Host - tag: ..." on standard output. The
// count is taken as a signed 16-bit value.
void DumpHostInput(const unsigned char* data, int count, const char* tag);
void DumpHostOutput(const unsigned char* data, int count, const char* tag);

}  // namespace vexa
