/*
 * vexcri.h - the application-session library of the unit's maker, libvexcri.so.
 *
 * One session is one conversation with one application on the unit, named when the session is
 * initialised. Commands are numbered; each is answered by one call of the session's callback.
 * Results are 1 for success. Handles are 32-bit and never 0.
 *
 * The service has sessions with "DAQ", "SPLASH" and "FGEN". It initialises and terminates them with
 * mode 1, whose meaning is the library's, and sends these commands:
 *
 *    1    activate: take the hardware             answered by 1 when that is done
 *    2    deactivate: give the hardware up        answered by 1 when that is done
 *    3    query: who holds the hardware?          answered by 1 when the application does, else 0
 *    4    notify                                  answered by 1
 *
 * The argument of a command is the time in ms, 1000 or 10000, after which the library answers -1 in
 * place of an application that has not answered.
 */
#ifndef PLATFORM_VEXCRI_H
#define PLATFORM_VEXCRI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Called with an application's answer to `command`; may run on a thread of the library. */
typedef void (*CriCallback)(void* context, uint32_t command, int32_t response);

/* Opens the session with the application `name` and fills in its handle. 1 on success. */
int32_t criInit(const char* name, int32_t mode, CriCallback callback, void* context,
                uint32_t* handle);

/* Sends a command with its argument; does not wait for the answer. 1 on success. */
int32_t criCommand(uint32_t handle, uint32_t command, uint32_t argument);

/* Ends the session; once it has returned, its callback is not called. 1 on success. */
int32_t criTerminate(uint32_t handle, int32_t mode);

#ifdef __cplusplus
}
#endif

#endif
