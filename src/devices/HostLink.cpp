#include "devices/HostLink.h"

#include <algorithm>
#include <utility>

#include "devices/GServerUSBBulkDevice.h"
#include "foundation/HexDump.h"

namespace vexa {

namespace {

constexpr int kReaderPriority = 3;

HostLinkState* link = nullptr;  // set before any other thread exists

// The device, for the main thread. Unchecked: this thread alone sets and removes the device, so it
// needs no gate to read it.
GDeviceIO* OwnDevice() VEXA_UNCHECKED { return link == nullptr ? nullptr : link->device.get(); }

}  // namespace

void HostLink_Use(HostLinkState* state) { link = state; }

int HostLink_Open() {
    GPortRef port(GPortRef::kUSBBulk, "", "", "", 0, 0);
    const auto ports = GServerUSBBulkDevice::EnumeratePorts(GPortRef::kHostPort);
    if (!ports.empty()) port = ports.front();  // GCOVR_EXCL_BR_LINE: there is always one
    return HostLink_OpenDevice(std::make_unique<GServerUSBBulkDevice>(&port), port);
}

int HostLink_OpenDevice(std::unique_ptr<GDeviceIO> device, const GPortRef& port) {
    if (link == nullptr) return 0;
    link->hostRing.Init(link->hostRingStorage.data(), kHostBufferSize);
    link->inputLock.reset(new CeilingMutex{kCeilingPriority, OSMutexPtr(OSCreateMutex(""))});
    link->inputBuffer = std::make_unique<GCircularBuffer>(kHostBufferSize);
    link->inputBuffer->lock = link->inputLock.get();

    device->SetReadCallback(HostDeviceReadCallback, link->inputBuffer.get());
    device->SetThreadPriority(kReaderPriority);
    device->bufferedOutput = true;
    const int result = device->Open(&port);

    const ExclusiveLock gate(link->deviceGate);
    link->device = std::move(device);
    link->acceptsWrites = true;
    return result == 0 ? 1 : 0;
}

void HostLink_Close() {
    if (link == nullptr) return;
    std::unique_ptr<GDeviceIO> device;
    link->acceptsWrites = false;
    {
        const ExclusiveLock gate(link->deviceGate);
        device = std::move(link->device);
    }
    device.reset();
    link->inputBuffer.reset();
    link->inputLock.reset();
}

int HostDeviceReadCallback(const unsigned char* data, int count, void* context) {
    if (context == nullptr) return 0;
    static_cast<GCircularBuffer*>(context)->Write(data, count);
    return count;
}

unsigned char HostLink_Write(const unsigned char* data, int count) {
    if (link == nullptr || !link->acceptsWrites) return 0;
    const SharedLock gate(link->deviceGate);
    if (!link->device || link->device->QueueWrite(data, &count) != 0) return 0;
    return static_cast<unsigned char>(count);
}

unsigned char HostLink_WriteByte(unsigned char value) { return HostLink_Write(&value, 1); }

void HostLink_TakeInput() {
    if (link == nullptr || !link->inputBuffer || link->inputBuffer->SeemsEmpty()) return;
    std::array<std::uint8_t, kHostBufferSize> bytes;  // only the bytes read are ever set
    const std::uint32_t room = link->hostRing.Capacity() - link->hostRing.Count();
    const auto asked = static_cast<std::int32_t>(std::min<std::size_t>(room, bytes.size()));
    const std::int32_t taken = link->inputBuffer->Read(bytes.data(), asked);
    if (taken > 0) link->hostRing.WriteBlock(bytes.data(), static_cast<std::uint32_t>(taken));
}

std::uint16_t HostLink_BytesAvailable() {
    return link == nullptr ? 0 : static_cast<std::uint16_t>(link->hostRing.Count());
}

unsigned char HostLink_ReadByte() {
    unsigned char value = 0;
    if (link != nullptr) link->hostRing.Get(value);
    return value;
}

std::span<const std::uint8_t> HostLink_Input() {
    return link == nullptr ? std::span<const std::uint8_t>() : link->hostRing.Oldest();
}

void HostLink_TakeBytes(std::size_t count) {
    if (link != nullptr) link->hostRing.Drop(static_cast<std::uint32_t>(count));
}

int HostLink_Purge() {
    GDeviceIO* const device = OwnDevice();
    if (device != nullptr) device->Purge();
    return 1;
}

unsigned char HostLink_IsOpen() {
    const GDeviceIO* const device = OwnDevice();
    return device != nullptr && device->isOpen ? 1 : 0;
}

unsigned char HostLink_IsLinkUp() {
    const GDeviceIO* const device = OwnDevice();
    return device != nullptr && device->linkUp ? 1 : 0;
}

void DumpHostInput(const unsigned char* data, int count, const char* tag) {
    HexDump("Input from Host", tag, data, count);
}

void DumpHostOutput(const unsigned char* data, int count, const char* tag) {
    HexDump("Output to Host", tag, data, count);
}

}  // namespace vexa
