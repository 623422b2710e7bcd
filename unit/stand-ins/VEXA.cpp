// The C interface of the modelled device-access library. It checks the arguments; LibraryCall
// applies faults and writes the call log.
#include "VEXA.h"

#include <cstring>
#include <string>
#include <string_view>

#include "model/CallLog.h"
#include "model/Runtime.h"
#include "model/Unit.h"

#define VEXA_PUBLIC extern "C" __attribute__((visibility("default")))

using vexa::unit::Call;
using vexa::unit::CallOutcome;
using vexa::unit::FaultEffect;
using vexa::unit::LibraryCall;
using vexa::unit::QuotedText;
using vexa::unit::Status;
using vexa::unit::Unit;

namespace {

vexa::unit::VexaLibrary& Library() { return Unit::Instance().Vexa(); }

CallOutcome Result(Status status, std::string note = "") {
    return {static_cast<std::int32_t>(status), std::move(note)};
}

// The result of the body of a call; when the process has nothing left to serve it with, the
// failure.
template <typename Body>
std::int32_t ForStatus(Body body) {
    return vexa::unit::OrFail(static_cast<std::int32_t>(Status::kFailed), body);
}
template <typename Body>
std::uint32_t ForHandle(Body body) {
    return vexa::unit::OrFail(std::uint32_t{0}, body);
}

// Performs a call that returns a status.
template <typename Work>
std::int32_t Perform(LibraryCall& call, Work work) {
    return static_cast<std::int32_t>(call.Perform(static_cast<std::int32_t>(Status::kFailed),
                                                  [&](const FaultEffect&) { return work(); }));
}

// Performs a call that returns a handle, 0 when it fails.
template <typename Work>
std::uint32_t PerformForHandle(LibraryCall& call, Work work) {
    return static_cast<std::uint32_t>(call.Perform(0, [&](const FaultEffect&) { return work(); }));
}

std::string_view TextOf(const char* text) { return text == nullptr ? "" : text; }

CallOutcome CopyName(std::string_view from, char* name, std::uint32_t capacity) {
    if (name == nullptr || from.size() >= capacity) return Result(Status::kBadArgument);
    std::memcpy(name, from.data(), from.size());
    name[from.size()] = '\0';
    return Result(Status::kOk, QuotedText(from));
}

// A context is a number that the caller chose, or an address, which would differ between runs.
std::string ContextText(const void* context, std::string_view deviceName) {
    const auto value = reinterpret_cast<std::uintptr_t>(context);
    const bool address = value > UINT32_MAX || Library().TypeOf(deviceName) == vexa::unit::kDaqType;
    return address && value != 0 ? "context pointer" : "context " + std::to_string(value);
}

std::string CountsText(const vexa::unit::ClosedStream& closed) {
    const auto& counts = closed.counts;
    return QuotedText(closed.deviceName) + ": " + std::to_string(counts.blocks) + " blocks out, " +
           std::to_string(counts.taken) + " taken, " + std::to_string(counts.refused) +
           " refused, " + std::to_string(counts.writes) + " writes in";
}

std::string StreamName(std::uint32_t stream) {
    return Library().StreamDeviceName(stream).value_or("");
}

}  // namespace

VEXA_PUBLIC std::uint32_t VEXA_Init(void) {
    return ForHandle([] {
        LibraryCall call(Call::kInit);
        return PerformForHandle(call, [] { return CallOutcome{Library().Init()}; });
    });
}

VEXA_PUBLIC std::int32_t VEXA_Uninit(std::uint32_t library) {
    return ForStatus([&] {
        LibraryCall call(Call::kUninit);
        call.Line().Number(library);
        return Perform(call, [&] { return Result(Library().Uninit(library)); });
    });
}

VEXA_PUBLIC std::int32_t VEXA_GetDLLVersion(std::uint32_t library, std::uint16_t* major,
                                            std::uint16_t* minor) {
    return ForStatus([&] {
        LibraryCall call(Call::kGetDllVersion);
        call.Line().Number(library);
        return Perform(call, [&] {
            if (!Library().IsOpen(library)) return Result(Status::kBadHandle);
            if (major == nullptr || minor == nullptr) return Result(Status::kBadArgument);
            const auto& settings = Library().Settings();
            *major = settings.majorVersion;
            *minor = settings.minorVersion;
            return Result(Status::kOk, std::to_string(*major) + "." + std::to_string(*minor));
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_Diags_SetDebugTraceThreshold(std::uint32_t library,
                                                           std::int32_t level) {
    return ForStatus([&] {
        LibraryCall call(Call::kSetDebugTraceThreshold);
        call.Line().Number(library).Number(level);
        return Perform(call, [&] {
            return Result(Library().IsOpen(library) ? Status::kOk : Status::kBadHandle);
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, std::uint32_t* type) {
    return ForStatus([&] {
        LibraryCall call(Call::kGetDeviceType, TextOf(name));
        call.Line().Text(TextOf(name));
        return Perform(call, [&] {
            if (name == nullptr || type == nullptr) return Result(Status::kBadArgument);
            const auto found = Library().TypeOf(name);
            if (!found) return Result(Status::kNoSuchDevice);
            *type = *found;
            return Result(Status::kOk, "type " + std::to_string(*found));
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_SearchForDevices(std::uint32_t library, std::uint32_t type,
                                               std::int32_t mode, std::int32_t reserved,
                                               std::uint32_t* status) {
    return ForStatus([&] {
        LibraryCall call(Call::kSearchForDevices);
        call.Line().Number(library).Number(type).Number(mode).Number(reserved);
        return Perform(call, [&] {
            if (status == nullptr) return Result(Status::kBadArgument);
            *status = 0;
            // The model's list is always up to date.
            return Result(Library().IsOpen(library) ? Status::kOk : Status::kBadHandle);
        });
    });
}

VEXA_PUBLIC std::uint32_t VEXA_OpenDeviceListSnapshot(std::uint32_t library, std::uint32_t type,
                                                      std::uint32_t* count,
                                                      std::uint32_t* signature) {
    return ForHandle([&] {
        LibraryCall call(Call::kOpenSnapshot);
        call.Line().Number(library).Number(type);
        return PerformForHandle(call, [&] {
            if (count == nullptr || signature == nullptr) return CallOutcome{};
            const auto snapshot = Library().OpenSnapshot(library, type);
            if (!snapshot) return CallOutcome{};
            *count = snapshot->count;
            *signature = snapshot->signature;
            return CallOutcome{snapshot->handle, std::to_string(snapshot->count) + " found"};
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_DeviceListSnapshot_GetNthEntry(std::uint32_t snapshot,
                                                             std::uint32_t index, char* name,
                                                             std::uint32_t capacity,
                                                             std::uint32_t* status) {
    return ForStatus([&] {
        std::string entry;
        const Status found = Library().SnapshotEntry(snapshot, index, entry);
        LibraryCall call(Call::kGetNthEntry, entry);
        call.Line().Number(snapshot).Number(index).Number(capacity);
        return Perform(call, [&] {
            if (status == nullptr) return Result(Status::kBadArgument);
            *status = 0;
            return found == Status::kOk ? CopyName(entry, name, capacity) : Result(found);
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_CloseDeviceListSnapshot(std::uint32_t snapshot) {
    return ForStatus([&] {
        LibraryCall call(Call::kCloseSnapshot);
        call.Line().Number(snapshot);
        return Perform(call, [&] { return Result(Library().CloseSnapshot(snapshot)); });
    });
}

VEXA_PUBLIC std::uint32_t VEXA_Device_Stream_Open(std::uint32_t library, const char* name,
                                                  VEXA_ReadCallback callback, std::int32_t mode,
                                                  void* context) {
    return ForHandle([&] {
        const std::string_view deviceName = TextOf(name);
        LibraryCall call(Call::kStreamOpen, deviceName);
        call.Line().Number(library).Text(deviceName).Number(mode, "mode");
        call.Line().Word(ContextText(context, deviceName));
        return PerformForHandle(call, [&] {
            if (name == nullptr || callback == nullptr) return CallOutcome{};
            return CallOutcome{Library().OpenStream(library, deviceName, callback, context)};
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_Device_Stream_Write(std::uint32_t stream, const void* data,
                                                  std::int32_t length) {
    return ForStatus([&] {
        LibraryCall call(Call::kStreamWrite, StreamName(stream));
        call.Line().Number(stream).Number(length, "length");
        call.KeepFromListeners();  // there are too many of them
        return Perform(call, [&] {
            if (length < 0 || (data == nullptr && length > 0)) return Result(Status::kBadArgument);
            const auto* const bytes = static_cast<const std::uint8_t*>(data);
            return Result(Library().Write(stream, {bytes, static_cast<std::size_t>(length)}));
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_Device_Stream_Close(std::uint32_t stream) {
    return ForStatus([&] {
        LibraryCall call(Call::kStreamClose, StreamName(stream));
        call.Line().Number(stream);
        const auto work = [&](const FaultEffect& effect) {
            const auto closed = Library().CloseStream(stream, effect.sendsData);
            return closed ? Result(Status::kOk, CountsText(*closed)) : Result(Status::kBadHandle);
        };
        return static_cast<std::int32_t>(
            call.Perform(static_cast<std::int32_t>(Status::kFailed), work));
    });
}

VEXA_PUBLIC std::int32_t VEXA_Device_GetOpenDeviceName(std::uint32_t stream, char* name,
                                                       std::uint32_t capacity) {
    return ForStatus([&] {
        LibraryCall call(Call::kGetOpenDeviceName, StreamName(stream));
        call.Line().Number(stream).Number(capacity);
        return Perform(call, [&] {
            const auto found = Library().StreamDeviceName(stream);
            return found ? CopyName(*found, name, capacity) : Result(Status::kBadHandle);
        });
    });
}

VEXA_PUBLIC std::uint32_t VEXA_Device_Open(std::uint32_t library, const char* name,
                                           std::int32_t mode) {
    return ForHandle([&] {
        LibraryCall call(Call::kDeviceOpen, TextOf(name));
        call.Line().Number(library).Text(TextOf(name)).Number(mode, "mode");
        return PerformForHandle(call, [&] {
            return CallOutcome{name == nullptr ? 0 : Library().OpenDevice(library, name)};
        });
    });
}

VEXA_PUBLIC std::int32_t VEXA_Device_Close(std::uint32_t device) {
    return ForStatus([&] {
        LibraryCall call(Call::kDeviceClose, Library().OpenDeviceName(device).value_or(""));
        call.Line().Number(device);
        return Perform(call, [&] { return Result(Library().CloseDevice(device)); });
    });
}
