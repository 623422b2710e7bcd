// A device-access library as a unit should not have it; what is not here is as in the one that it
// is linked with. Snapshots have the number of their type.
#include <cstdlib>
#include <cstring>

#include "VEXA.h"

extern "C" {
int32_t VEXA_GetDLLVersion(uint32_t, uint16_t*, uint16_t*) { return 5; }
int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, uint32_t* type) {
    *type = std::strcmp(name, "Clock") == 0 ? 7 : 8;
    return 0;
}
int32_t VEXA_SearchForDevices(uint32_t, uint32_t type, int32_t, int32_t, uint32_t*) {
    return type == 2 ? -9 : 0;
}
uint32_t VEXA_OpenDeviceListSnapshot(uint32_t, uint32_t type, uint32_t* count, uint32_t*) {
    *count = type == 4 || type == 9 || type == 11 ? 1 : 0;
    return type == 3 ? 0 : type;
}
int32_t VEXA_DeviceListSnapshot_GetNthEntry(uint32_t snapshot, uint32_t, char* name,
                                            uint32_t capacity, uint32_t*) {
    std::memset(name, 'A', snapshot == 9 ? capacity + 1 : capacity);
    if (snapshot == 4) std::memcpy(name, "Tilt", 5);
    return 0;
}
int32_t VEXA_CloseDeviceListSnapshot(uint32_t) { return 0; }
int32_t VEXA_Uninit(uint32_t) { std::abort(); }
}
