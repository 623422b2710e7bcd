/*
 * VEXA.h - the device-access library of the unit's maker, libVEXA.so.
 *
 * Every attached device is reached through this library: sensors by the type that their name
 * resolves to, the acquisition board as type 5. Handles are 32-bit and never 0; strings end in NUL.
 * A result called "status" is 0 for success and anything else for failure.
 *
 * Device types. The service searches for these and opens no others:
 *
 *    2, 3, 4     HID sensors: each block is a report of exactly 8 bytes
 *    5           the acquisition board: its bytes may come in blocks of any size
 *    8, 9, 11    byte-stream sensors: blocks of up to 245 bytes
 *
 * Modes. What they make a library do is for that library to say (the stand-ins ignore them). The
 * service always gives the same ones:
 *
 *    VEXA_SearchForDevices      1 for the type of a sensor, 2 for the board; `reserved` is 0
 *    VEXA_Device_Stream_Open    3 for a sensor, 4 for the board
 *    VEXA_Device_Open           1, for the board alone, which is reset by being opened and closed
 *
 * Threads: calls may come from any thread. Read callbacks run on threads of the library;
 * VEXA_Device_Stream_Close may wait for a callback of its stream that is under way, so no lock that
 * a callback takes may be held across it.
 */
#ifndef PLATFORM_VEXA_H
#define PLATFORM_VEXA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Called with each block that a device sends: `count` bytes at `data`, valid during the call only,
 * and the context given at stream open. Returns 0 when the block was accepted, -1 when refused. */
typedef int32_t (*VEXA_ReadCallback)(const uint8_t* data, int32_t count, void* context);

/* Brings the library up. Returns its handle, 0 on failure. */
uint32_t VEXA_Init(void);

/* Ends the library; `library` is void afterwards. Status. */
int32_t VEXA_Uninit(uint32_t library);

/* Fills in the library's version. Status. */
int32_t VEXA_GetDLLVersion(uint32_t library, uint16_t* major, uint16_t* minor);

/* Sets the lowest level of the library's own trace lines that are printed; the service sets 1.
 * Status. */
int32_t VEXA_Diags_SetDebugTraceThreshold(uint32_t library, int32_t level);

/* Fills in the device type that a device name stands for, attached or not. For a name that means
 * nothing `type` stays as it is. Status. */
int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, uint32_t* type);

/* Looks for attached devices of a type and updates the library's list of them. `mode`: 1 sensors, 2
 * the board; `reserved`: 0; `status` receives a word of the library's. Status. */
int32_t VEXA_SearchForDevices(uint32_t library, uint32_t type, int32_t mode, int32_t reserved,
                              uint32_t* status);

/* Takes a snapshot of the list of devices of a type; fills in the number of entries and the list's
 * signature. Returns the snapshot's handle, 0 on failure. */
uint32_t VEXA_OpenDeviceListSnapshot(uint32_t library, uint32_t type, uint32_t* count,
                                     uint32_t* signature);

/* Copies the name of entry `index` (from 0) into `name`, which holds `capacity` bytes; `status`
 * receives a word of the library's. Status. */
int32_t VEXA_DeviceListSnapshot_GetNthEntry(uint32_t snapshot, uint32_t index, char* name,
                                            uint32_t capacity, uint32_t* status);

/* Frees a snapshot. Status. */
int32_t VEXA_CloseDeviceListSnapshot(uint32_t snapshot);

/* Opens a stream to the device of that name. From here on `callback` is called with `context` for
 * each block that the device sends. `mode`: 3 sensors, 4 the board. Returns the stream's handle, 0
 * on failure. */
uint32_t VEXA_Device_Stream_Open(uint32_t library, const char* name, VEXA_ReadCallback callback,
                                 int32_t mode, void* context);

/* Sends `length` bytes (0 or more) to the device. Status. */
int32_t VEXA_Device_Stream_Write(uint32_t stream, const void* data, int32_t length);

/* Closes a stream; once it has returned, no callback of the stream runs. Status. */
int32_t VEXA_Device_Stream_Close(uint32_t stream);

/* Copies the name of a stream's device into `name`, which holds `capacity` bytes. Status. */
int32_t VEXA_Device_GetOpenDeviceName(uint32_t stream, char* name, uint32_t capacity);

/* Opens the device of that name without a stream. `mode`: 1. Returns its handle, 0 on failure. */
uint32_t VEXA_Device_Open(uint32_t library, const char* name, int32_t mode);

/* Closes a device opened with VEXA_Device_Open. Status. */
int32_t VEXA_Device_Close(uint32_t device);

#ifdef __cplusplus
}
#endif

#endif
