#include "support/ScriptedLibraries.h"

#include <cstring>
#include <utility>

namespace vexa::test {

namespace {

constexpr std::uint32_t kSnapshotBase = 100;  // a snapshot's handle is this plus the type
constexpr std::uint32_t kDaqType = 5;

ScriptedLibraries& Script() { return ScriptedLibraries::Get(); }

// Always 0, as a status.
template <typename... Parts>
std::int32_t Note(const Parts&... parts) {
    Script().calls.push_back(Joined(parts...));
    return 0;
}

std::int32_t CopyName(const std::string& from, char* name, std::uint32_t capacity) {
    if (from.size() >= capacity) return -1;
    std::memcpy(name, from.c_str(), from.size() + 1);
    return 0;
}

}  // namespace

ScriptedLibraries& ScriptedLibraries::Get() {
    static ScriptedLibraries script;
    return script;
}

std::vector<std::string> ScriptedLibraries::TakeCalls() { return std::exchange(calls, {}); }

std::int32_t ScriptedLibraries::Send(std::uint32_t stream, const Bytes& block) {
    const Stream& open = streams.at(stream);
    return open.callback(block.data(), static_cast<std::int32_t>(block.size()), open.context);
}

void ScriptedLibraries::Answer(const std::string& application, std::uint32_t command,
                               std::int32_t response) {
    for (const auto& [handle, session] : sessions) {
        if (session.name == application) session.callback(session.context, command, response);
    }
}

}  // namespace vexa::test

using namespace vexa::test;  // NOLINT: the functions below have the libraries' own names

extern "C" {

uint32_t VEXA_Init() {
    Note("VEXA_Init()");
    return Script().library;
}

int32_t VEXA_Uninit(uint32_t library) { return Note("VEXA_Uninit(", library, ")"); }

int32_t VEXA_GetDLLVersion(uint32_t /*library*/, uint16_t* major, uint16_t* minor) {
    *major = 3;
    *minor = 12;
    return 0;
}

int32_t VEXA_Diags_SetDebugTraceThreshold(uint32_t library, int32_t level) {
    return Note("VEXA_Diags_SetDebugTraceThreshold(", library, ", ", level, ")");
}

int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, uint32_t* type) {
    const auto known = Script().types.find(name);
    if (known == Script().types.end()) return -1;
    *type = known->second;
    return 0;
}

int32_t VEXA_SearchForDevices(uint32_t library, uint32_t type, int32_t mode, int32_t reserved,
                              uint32_t* /*status*/) {
    return Note("VEXA_SearchForDevices(", library, ", ", type, ", ", mode, ", ", reserved, ")");
}

uint32_t VEXA_OpenDeviceListSnapshot(uint32_t /*library*/, uint32_t type, uint32_t* count,
                                     uint32_t* /*signature*/) {
    *count = static_cast<uint32_t>(Script().attached.count(type));
    return Script().snapshotsOpen ? kSnapshotBase + type : 0;
}

int32_t VEXA_DeviceListSnapshot_GetNthEntry(uint32_t snapshot, uint32_t index, char* name,
                                            uint32_t capacity, uint32_t* /*status*/) {
    const auto found = Script().attached.find(snapshot - kSnapshotBase);
    if (index != 0 || found == Script().attached.end()) return -1;
    return CopyName(found->second, name, capacity);
}

int32_t VEXA_CloseDeviceListSnapshot(uint32_t snapshot) {
    return Note("VEXA_CloseDeviceListSnapshot(", snapshot, ")");
}

uint32_t VEXA_Device_Stream_Open(uint32_t /*library*/, const char* name, VEXA_ReadCallback callback,
                                 int32_t mode, void* context) {
    const uint32_t handle = Script().streamsOpen ? ++Script().lastHandle : 0;
    Note("VEXA_Device_Stream_Open(", name, ", mode ", mode, ") = ", handle);
    if (handle != 0) Script().streams[handle] = {name, callback, context};
    return handle;
}

int32_t VEXA_Device_Stream_Write(uint32_t stream, const void* data, int32_t length) {
    auto& script = Script();
    if (script.recordWrites) {
        const auto* bytes = static_cast<const uint8_t*>(data);
        script.writes.push_back(Joined(stream, ": ", ToHex({bytes, static_cast<size_t>(length)})));
    }
    if (!script.writesSucceed) return -1;
    const auto board = script.attached.find(kDaqType);
    if (length == 25 && !script.daqAnswer.empty() && board != script.attached.end() &&
        script.streams.at(stream).device == board->second) {
        script.Send(stream, script.daqAnswer);
    }
    return 0;
}

int32_t VEXA_Device_Stream_Close(uint32_t stream) {
    Note("VEXA_Device_Stream_Close(", stream, ")");
    return Script().streams.erase(stream) == 1 ? 0 : -1;
}

int32_t VEXA_Device_GetOpenDeviceName(uint32_t stream, char* name, uint32_t capacity) {
    return CopyName(Script().streams[stream].device, name, capacity);
}

uint32_t VEXA_Device_Open(uint32_t /*library*/, const char* name, int32_t mode) {
    Note("VEXA_Device_Open(", name, ", mode ", mode, ")");
    return Script().deviceOpens ? ++Script().lastHandle : 0;
}

int32_t VEXA_Device_Close(uint32_t /*device*/) { return Note("VEXA_Device_Close()"); }

int32_t criInit(const char* name, int32_t mode, CriCallback callback, void* context,
                uint32_t* handle) {
    Note("criInit(", name, ", ", mode, ")");
    const auto result = Script().initResults.find(name);
    if (result != Script().initResults.end() && result->second != 1) return result->second;
    *handle = ++Script().lastHandle;
    Script().sessions[*handle] = {name, callback, context};
    return 1;
}

int32_t criCommand(uint32_t handle, uint32_t command, uint32_t argument) {
    const auto session = Script().sessions.at(handle);
    Note("criCommand(", session.name, ", ", command, ", ", argument, ")");
    if (Script().commandResult != 1) return Script().commandResult;
    const auto answer = Script().answers.find(command);
    if (answer != Script().answers.end()) {
        session.callback(session.context, command, answer->second);
    }
    return 1;
}

int32_t criTerminate(uint32_t handle, int32_t mode) {
    Note("criTerminate(", Script().sessions.at(handle).name, ", ", mode, ")");
    return 1;
}

}  // extern "C"
