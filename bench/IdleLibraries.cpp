#include "IdleLibraries.h"

#include <cstring>

#include "vexcri.h"

namespace {

constexpr uint32_t kHandle = 1;
constexpr uint32_t kSensorType = 8;
constexpr char kSensorName[] = "sensor";

vexa::bench::OpenedStream lastStream;

}  // namespace

vexa::bench::OpenedStream vexa::bench::LastStream() { return lastStream; }

extern "C" {

uint32_t VEXA_Init() { return kHandle; }
int32_t VEXA_Uninit(uint32_t /*library*/) { return 0; }
int32_t VEXA_GetDLLVersion(uint32_t /*library*/, uint16_t* /*major*/, uint16_t* /*minor*/) {
    return 0;
}
int32_t VEXA_Diags_SetDebugTraceThreshold(uint32_t /*library*/, int32_t /*level*/) { return 0; }
int32_t VEXA_GetDeviceTypeFromDeviceName(const char* /*name*/, uint32_t* type) {
    *type = kSensorType;
    return 0;
}
int32_t VEXA_SearchForDevices(uint32_t /*library*/, uint32_t /*type*/, int32_t /*mode*/,
                              int32_t /*reserved*/, uint32_t* /*status*/) {
    return 0;
}
uint32_t VEXA_OpenDeviceListSnapshot(uint32_t /*library*/, uint32_t /*type*/, uint32_t* count,
                                     uint32_t* /*signature*/) {
    *count = 1;
    return kHandle;
}
int32_t VEXA_DeviceListSnapshot_GetNthEntry(uint32_t /*snapshot*/, uint32_t /*index*/, char* name,
                                            uint32_t /*capacity*/, uint32_t* /*status*/) {
    std::memcpy(name, kSensorName, sizeof kSensorName);
    return 0;
}
int32_t VEXA_CloseDeviceListSnapshot(uint32_t /*snapshot*/) { return 0; }
uint32_t VEXA_Device_Stream_Open(uint32_t /*library*/, const char* /*name*/,
                                 VEXA_ReadCallback callback, int32_t /*mode*/, void* context) {
    lastStream = {callback, context};
    return kHandle;
}
int32_t VEXA_Device_Stream_Write(uint32_t /*stream*/, const void* /*data*/, int32_t /*length*/) {
    return 0;
}
int32_t VEXA_Device_Stream_Close(uint32_t /*stream*/) { return 0; }
int32_t VEXA_Device_GetOpenDeviceName(uint32_t /*stream*/, char* name, uint32_t /*capacity*/) {
    *name = '\0';
    return 0;
}
uint32_t VEXA_Device_Open(uint32_t /*library*/, const char* /*name*/, int32_t /*mode*/) {
    return kHandle;
}
int32_t VEXA_Device_Close(uint32_t /*device*/) { return 0; }

int32_t criInit(const char* /*name*/, int32_t /*mode*/, CriCallback /*callback*/, void* /*context*/,
                uint32_t* handle) {
    *handle = kHandle;
    return 1;
}
int32_t criCommand(uint32_t /*handle*/, uint32_t /*command*/, uint32_t /*argument*/) { return 1; }
int32_t criTerminate(uint32_t /*handle*/, int32_t /*mode*/) { return 1; }

}  // extern "C"
