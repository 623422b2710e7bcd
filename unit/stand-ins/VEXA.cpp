// The C face of the modelled device-access library: checks arguments, keeps the journal.
#include "VEXA.h"

#include <cstring>
#include <string>
#include <string_view>

#include "model/CallLine.h"
#include "model/Unit.h"

#define VEXA_PUBLIC extern "C" __attribute__((visibility("default")))

using vexa::unit::CallLine;
using vexa::unit::QuotedText;
using vexa::unit::Status;
using vexa::unit::Unit;

namespace {

vexa::unit::VexaLibrary& Library() { return Unit::Instance().Vexa(); }

void Note(const CallLine& line) { Unit::Instance().CallJournal().Write(line.Line()); }

// Writes the line down with its result, and returns the result.
std::int32_t Finish(CallLine& line, Status status, std::string_view note = "") {
    const auto result = static_cast<std::int32_t>(status);
    line.Result(result);
    if (!note.empty()) line.Note(note);
    Note(line);
    return result;
}

std::uint32_t FinishHandle(CallLine& line, std::uint32_t handle, std::string_view note = "") {
    line.Result(handle);
    if (!note.empty()) line.Note(note);
    Note(line);
    return handle;
}

std::string_view TextOf(const char* text) { return text == nullptr ? "" : text; }

Status CopyName(std::string_view from, char* name, std::uint32_t capacity) {
    if (name == nullptr || from.size() >= capacity) return Status::kBadArgument;
    std::memcpy(name, from.data(), from.size());
    name[from.size()] = '\0';
    return Status::kOk;
}

// A context is a number of the caller's or an address, which would differ from run to run.
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

}  // namespace

VEXA_PUBLIC std::uint32_t VEXA_Init(void) {
    CallLine line("VEXA_Init");
    return FinishHandle(line, Library().Init());
}

VEXA_PUBLIC std::int32_t VEXA_Uninit(std::uint32_t library) {
    CallLine line("VEXA_Uninit");
    line.Number(library);
    return Finish(line, Library().Uninit(library));
}

VEXA_PUBLIC std::int32_t VEXA_GetDLLVersion(std::uint32_t library, std::uint16_t* major,
                                            std::uint16_t* minor) {
    CallLine line("VEXA_GetDLLVersion");
    line.Number(library);
    if (!Library().IsOpen(library)) return Finish(line, Status::kBadHandle);
    if (major == nullptr || minor == nullptr) return Finish(line, Status::kBadArgument);
    const auto& settings = Library().Settings();
    *major = settings.majorVersion;
    *minor = settings.minorVersion;
    return Finish(line, Status::kOk, std::to_string(*major) + "." + std::to_string(*minor));
}

VEXA_PUBLIC std::int32_t VEXA_Diags_SetDebugTraceThreshold(std::uint32_t library,
                                                           std::int32_t level) {
    CallLine line("VEXA_Diags_SetDebugTraceThreshold");
    line.Number(library).Number(level);
    return Finish(line, Library().IsOpen(library) ? Status::kOk : Status::kBadHandle);
}

VEXA_PUBLIC std::int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, std::uint32_t* type) {
    CallLine line("VEXA_GetDeviceTypeFromDeviceName");
    line.Text(TextOf(name));
    if (name == nullptr || type == nullptr) return Finish(line, Status::kBadArgument);
    const auto found = Library().TypeOf(name);
    if (!found) return Finish(line, Status::kNoSuchDevice);
    *type = *found;
    return Finish(line, Status::kOk, "type " + std::to_string(*found));
}

VEXA_PUBLIC std::int32_t VEXA_SearchForDevices(std::uint32_t library, std::uint32_t type,
                                               std::int32_t mode, std::int32_t reserved,
                                               std::uint32_t* status) {
    CallLine line("VEXA_SearchForDevices");
    line.Number(library).Number(type).Number(mode).Number(reserved);
    if (status == nullptr) return Finish(line, Status::kBadArgument);
    *status = 0;
    // The model's list is always up to date.
    return Finish(line, Library().IsOpen(library) ? Status::kOk : Status::kBadHandle);
}

VEXA_PUBLIC std::uint32_t VEXA_OpenDeviceListSnapshot(std::uint32_t library, std::uint32_t type,
                                                      std::uint32_t* count,
                                                      std::uint32_t* signature) {
    CallLine line("VEXA_OpenDeviceListSnapshot");
    line.Number(library).Number(type);
    if (count == nullptr || signature == nullptr) return FinishHandle(line, 0);
    const auto snapshot = Library().OpenSnapshot(library, type);
    if (!snapshot) return FinishHandle(line, 0);
    *count = snapshot->count;
    *signature = snapshot->signature;
    return FinishHandle(line, snapshot->handle, std::to_string(snapshot->count) + " found");
}

VEXA_PUBLIC std::int32_t VEXA_DeviceListSnapshot_GetNthEntry(std::uint32_t snapshot,
                                                             std::uint32_t index, char* name,
                                                             std::uint32_t capacity,
                                                             std::uint32_t* status) {
    CallLine line("VEXA_DeviceListSnapshot_GetNthEntry");
    line.Number(snapshot).Number(index).Number(capacity);
    if (status == nullptr) return Finish(line, Status::kBadArgument);
    *status = 0;
    std::string entry;
    Status result = Library().SnapshotEntry(snapshot, index, entry);
    if (result == Status::kOk) result = CopyName(entry, name, capacity);
    return Finish(line, result, result == Status::kOk ? QuotedText(entry) : "");
}

VEXA_PUBLIC std::int32_t VEXA_CloseDeviceListSnapshot(std::uint32_t snapshot) {
    CallLine line("VEXA_CloseDeviceListSnapshot");
    line.Number(snapshot);
    return Finish(line, Library().CloseSnapshot(snapshot));
}

VEXA_PUBLIC std::uint32_t VEXA_Device_Stream_Open(std::uint32_t library, const char* name,
                                                  VEXA_ReadCallback callback, std::int32_t mode,
                                                  void* context) {
    CallLine line("VEXA_Device_Stream_Open");
    const std::string_view deviceName = TextOf(name);
    line.Number(library).Text(deviceName).Number(mode, "mode");
    line.Word(ContextText(context, deviceName));
    if (name == nullptr || callback == nullptr) return FinishHandle(line, 0);
    return FinishHandle(line, Library().OpenStream(library, deviceName, callback, context));
}

VEXA_PUBLIC std::int32_t VEXA_Device_Stream_Write(std::uint32_t stream, const void* data,
                                                  std::int32_t length) {
    if (length < 0 || (data == nullptr && length > 0)) {
        return static_cast<std::int32_t>(Status::kBadArgument);
    }
    const std::span bytes(static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length));
    return static_cast<std::int32_t>(Library().Write(stream, bytes));
}

VEXA_PUBLIC std::int32_t VEXA_Device_Stream_Close(std::uint32_t stream) {
    CallLine line("VEXA_Device_Stream_Close");
    line.Number(stream);
    const auto closed = Library().CloseStream(stream);
    if (!closed) return Finish(line, Status::kBadHandle);
    return Finish(line, Status::kOk, CountsText(*closed));
}

VEXA_PUBLIC std::int32_t VEXA_Device_GetOpenDeviceName(std::uint32_t stream, char* name,
                                                       std::uint32_t capacity) {
    CallLine line("VEXA_Device_GetOpenDeviceName");
    line.Number(stream).Number(capacity);
    const auto found = Library().StreamDeviceName(stream);
    if (!found) return Finish(line, Status::kBadHandle);
    const Status result = CopyName(*found, name, capacity);
    return Finish(line, result, result == Status::kOk ? QuotedText(*found) : "");
}

VEXA_PUBLIC std::uint32_t VEXA_Device_Open(std::uint32_t library, const char* name,
                                           std::int32_t mode) {
    CallLine line("VEXA_Device_Open");
    line.Number(library).Text(TextOf(name)).Number(mode, "mode");
    return FinishHandle(line, name == nullptr ? 0 : Library().OpenDevice(library, name));
}

VEXA_PUBLIC std::int32_t VEXA_Device_Close(std::uint32_t device) {
    CallLine line("VEXA_Device_Close");
    line.Number(device);
    return Finish(line, Library().CloseDevice(device));
}
