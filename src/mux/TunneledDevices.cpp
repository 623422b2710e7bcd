#include "mux/TunneledDevices.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "VEXA.h"
#include "devices/HostLink.h"
#include "protocol/Commands.h"

namespace vexa {

namespace {

// Sets of device types, a bit for each of the types 0 to 11.
constexpr std::uint32_t kStreamTypes = 0xB00;  // 8, 9, 11
constexpr std::uint32_t kHIDTypes = 0x1C;      // 2, 3, 4
constexpr std::uint32_t kClosableTypes = kStreamTypes | kHIDTypes;
constexpr std::uint32_t kTypeLimit = 12;

constexpr std::size_t kNameSize = 220;
constexpr std::int32_t kSearchMode = 1;
constexpr std::int32_t kStreamMode = 3;

constexpr std::int32_t kAccepted = 0;
constexpr std::int32_t kRefused = -1;

constexpr std::int32_t kReportSize = 8;
constexpr std::uint8_t kReportKindMask = 0xC0;  // of a report's first byte; any bit arms the child
constexpr std::uint8_t kInitResponse = 0x80;

bool IsIn(std::uint32_t types, std::uint32_t type) {
    return type < kTypeLimit && (types >> type & 1U) != 0;
}

// A child's context is its id, carried in the pointer value.
void* ContextOf(std::uint32_t id) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(id));  // NOLINT
}
std::uint32_t IdOf(void* context) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(context));
}

std::int32_t WriteStream(const std::uint8_t* data, std::int32_t length, std::uint32_t stream) {
    return VEXA_Device_Stream_Write(stream, data, length);
}

// Changes the child's entry; `child` receives the entry before the change. False when it is gone.
template <typename Change>
bool ChangeChild(void* context, MuxChild& child, Change change) {
    MuxChildren* children = HostVEXMuxController_Children();
    return children != nullptr && children->FindAndChange(IdOf(context), child, change);
}

void SendToHost(const MuxChild& child, std::span<const std::uint8_t> data) {
    std::array<std::uint8_t, kPacketBufferSize> buffer;  // only the packet's bytes are ever set
    const auto packet = std::span(buffer).first(kTunnelHeaderSize + data.size());
    BuildTunnelHeader(packet, child.id, child.seq, data.size());
    std::ranges::copy(data, packet.begin() + kTunnelHeaderSize);
    SealPacket(packet);
    HostLink_Write(packet.data(), static_cast<int>(packet.size()));
}

}  // namespace

std::optional<ReplyError> TunneledDevices::Open(InnerBuffer command) {
    const std::uint32_t id = LoadLe32(command, kCommandChildIdOffset);
    const std::size_t nameLength = command[kCommandNameLengthOffset];
    MuxChild existing;
    if (children.Find(id, existing)) return ReplyError::kChildFailed;
    if (children.Count() >= kMaxChildren) return ReplyError::kRefused;
    if (nameLength > kNameSize) return ReplyError::kChildFailed;

    std::array<char, kNameSize> name{};
    std::strncpy(name.data(), reinterpret_cast<const char*>(&command[kCommandNameOffset]),
                 nameLength);
    name.back() = '\0';

    std::uint32_t type = kTypeLimit;
    VEXA_GetDeviceTypeFromDeviceName(name.data(), &type);
    const bool isHID = IsIn(kHIDTypes, type);
    if (!isHID && !IsIn(kStreamTypes, type)) return ReplyError::kChildFailed;
    if (!FindDevice(type, name)) return ReplyError::kChildFailed;

    MuxChild child;
    child.id = id;
    child.device_type = type;
    child.write_fn = WriteStream;
    child.stream = VEXA_Device_Stream_Open(
        library, name.data(), isHID ? TunneledHIDDeviceReadCallback : TunneledDeviceReadCallback,
        kStreamMode, ContextOf(id));
    // A stream whose entry cannot be added stays open: that is part of how an open fails.
    if (child.stream == 0 || !children.Add(child)) return ReplyError::kChildFailed;
    return std::nullopt;
}

bool TunneledDevices::FindDevice(std::uint32_t type, std::span<char> name) const {
    std::uint32_t word = 0;
    std::uint32_t count = 0;
    std::uint32_t signature = 0;
    VEXA_SearchForDevices(library, type, kSearchMode, 0, &word);
    const std::uint32_t snapshot = VEXA_OpenDeviceListSnapshot(library, type, &count, &signature);
    if (snapshot == 0) return false;
    const bool found = count > 0 && VEXA_DeviceListSnapshot_GetNthEntry(
                                        snapshot, 0, name.data(),
                                        static_cast<std::uint32_t>(name.size()), &word) == 0;
    VEXA_CloseDeviceListSnapshot(snapshot);
    return found;
}

void TunneledDevices::Close(const MuxChild& child) {
    if (IsIn(kClosableTypes, child.device_type)) VEXA_Device_Stream_Close(child.stream);
}

std::int32_t TunneledDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                        void* context) noexcept {
    if (count < 0) return kRefused;
    const auto size = static_cast<std::size_t>(count);
    const bool fits = size <= kMaxTunnelPayload;
    MuxChild child;
    const bool found = ChangeChild(context, child, [&](MuxChild& entry) {
        if (fits) {
            ++entry.seq;
        } else {
            entry.warned = 1;
        }
    });
    if (!found) return kRefused;
    if (fits) {
        SendToHost(child, {data, size});
        return kAccepted;
    }
    if (child.warned == 0) {
        std::printf("VEXADevMgr TunneledDeviceReadCallback numBytes = %d \n", count);
    }
    return kRefused;
}

std::int32_t TunneledHIDDeviceReadCallback(const std::uint8_t* data, std::int32_t count,
                                           void* context) noexcept {
    const bool isReport = count == kReportSize;
    const bool arms = count > 0 && (data[0] & kReportKindMask) != 0;
    MuxChild child;
    bool passes = false;
    const bool found = ChangeChild(context, child, [&](MuxChild& entry) {
        // A block of another size arms the child only together with its one warning.
        if (arms && (isReport || entry.warned == 0)) entry.hid_armed = 1;
        passes = isReport && entry.hid_armed != 0;
        if (passes) ++entry.seq;
        if (!isReport) entry.warned = 1;
    });
    if (!found) return kRefused;
    if (!isReport) {
        if (child.warned == 0) {
            std::printf("TunneledHIDDeviceReadCallback numBytes = %d \n", count);
        }
        return kRefused;
    }
    if (!passes) return kAccepted;
    if ((data[0] & kReportKindMask) == kInitResponse) std::puts("Tarn Init Response ");
    SendToHost(child, {data, kReportSize});
    return kAccepted;
}

}  // namespace vexa
