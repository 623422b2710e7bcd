// The open children and the state of the host connection, under the controller mutex.
//
// Any thread: the main thread and the read callbacks on the library's threads call in. Entries are
// copied in and out whole and never referenced outside the lock. Each operation tries for the lock
// for 1000 ms and fails (0, false) without it. No library call is made while it is held.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "foundation/Mutex.h"

namespace vexa {

// How the service writes a tunnelled payload to a child; the result is the library's.
using MuxWriteFunction = std::int32_t (*)(const std::uint8_t* data, std::int32_t length,
                                          std::uint32_t stream);

// One open child.
struct MuxChild {
    std::uint32_t id = 0;            // chosen by the host; bytes 4 to 7 of its tunnel packets
    std::uint8_t is_controller = 0;  // stands for the service's control channel and the DAQ link
    std::uint8_t hid_armed = 0;      // HID: a report with either of its top two bits set has come
    std::uint32_t device_type = 0;   // of the library; 5 for the controller
    MuxWriteFunction write_fn = nullptr;  // none for the controller
    std::uint32_t stream = 0;             // library stream handle; 0 for the controller
    std::uint8_t seq = 0;                 // of the next packet to the host on behalf of this child
    std::uint32_t warned = 0;             // a block of the wrong size was reported; once is enough
};

inline constexpr std::size_t kMaxChildren = 10;

// Up to ten entries, in order of addition.
struct MuxChildTable {
    std::array<MuxChild, kMaxChildren> entries{};
    std::size_t count = 0;
};

// A recursive mutex that is polled for: a lock held by a stalled thread becomes a printed line and
// a failure instead of a hang.
class VEXA_CAPABILITY("mutex") ControllerMutex {
  public:
    ControllerMutex() = default;
    ~ControllerMutex() { Destroy(); }
    ControllerMutex(const ControllerMutex&) = delete;
    ControllerMutex& operator=(const ControllerMutex&) = delete;

    // Makes the mutex. False, with a line, on failure; Lock then always fails. Main thread only.
    bool Init();
    void Destroy();

    // Tries (timeoutMs + 1) / 2 + 1 times, 2 ms apart. False, with a line, when it never got it.
    bool Lock(int timeoutMs) VEXA_TRY_ACQUIRE(true);
    void Unlock() VEXA_RELEASE();

  private:
    bool initialised = false;  // written by the main thread before others start
    pthread_mutex_t native{};
};

class MuxChildren {
  public:
    static constexpr int kLockTimeoutMs = 1000;

    // Empties everything and makes the mutex. False, with a line, when it cannot be made; every
    // operation on the table then fails. Main thread only.
    bool Init();
    void Destroy() { mutex.Destroy(); }

    bool Lock(int timeoutMs) VEXA_TRY_ACQUIRE(true, mutex) { return mutex.Lock(timeoutMs); }
    void Unlock() VEXA_RELEASE(mutex) { mutex.Unlock(); }

    std::size_t Count();
    bool Find(std::uint32_t id, MuxChild& entry);
    // Fails when the id exists or ten entries are present.
    bool Add(const MuxChild& entry);
    // Later entries move down one place.
    bool Remove(std::uint32_t id);
    // All entries as they are now; none without the lock.
    MuxChildTable Copy();
    // Id of the first controller entry, 0 if there is none.
    std::uint32_t ControllerId();
    void Clear();

    // Looks the child up and lets `change` alter the entry in the table, all under one hold of the
    // lock, so that no two threads use the same sequence number. `entry` receives a copy of the
    // entry before the change. False when the child is gone.
    template <typename Change>
    bool FindAndChange(std::uint32_t id, MuxChild& entry, Change change) {
        return WithLock([&]() VEXA_REQUIRES(mutex) {
            MuxChild* const found = Locate(id);
            if (found == nullptr) return false;
            entry = *found;
            change(*found);
            return true;
        });
    }

    // The controller's entry before its sequence number was stepped; an entry of zeros when there
    // is no controller.
    MuxChild TakeControllerSequence();

    // Notes the link status that the main loop read, and counts a change. Returns the connection
    // generation. Takes no lock.
    std::uint32_t ConnectionGeneration(std::uint8_t linkUp);
    // The same for a status that another thread reports, under the lock; 0 without it.
    std::uint32_t ReportLinkStatus(std::uint8_t linkUp);

    // The mark that a host is connected.
    [[nodiscard]] bool IsHostConnected() const { return hostConnected != 0; }
    bool MarkHostConnected(bool connected);

  private:
    // The result of `operation` under the lock, or a zero value without it. Unchecked because the
    // analysis does not connect this object's mutex with the one that `operation` requires.
    template <typename Operation>
    std::invoke_result_t<Operation&> WithLock(Operation operation) VEXA_UNCHECKED {
        if (!Lock(kLockTimeoutMs)) return {};
        const auto result = operation();
        Unlock();
        return result;
    }

    MuxChild* Locate(std::uint32_t id) VEXA_REQUIRES(mutex);
    MuxChild* LocateController() VEXA_REQUIRES(mutex);

    ControllerMutex mutex;
    MuxChildTable table VEXA_GUARDED_BY(mutex);
    std::atomic<std::uint8_t> lastLinkUp{0};   // the last link status seen
    std::atomic<std::uint32_t> generation{0};  // of the connection; steps with each change of it
    std::atomic<std::uint8_t> hostConnected{0};
};

// Initialises `children` and makes them the ones that the library's read callbacks work on. False
// when the mutex could not be made. Main thread only.
bool HostVEXMuxController_Init(MuxChildren& children);

// The children in use, null before HostVEXMuxController_Init. Any thread.
MuxChildren* HostVEXMuxController_Children();

// Ends their use and frees the mutex. Main thread only.
void HostVEXMuxController_Destroy();

// Reports that a client has connected or left, for a transport that knows its clients. A change
// steps the connection generation. `generation` receives it, 0 when the lock could not be taken; it
// may be null. Any thread.
void SetHostConnected(bool connected, std::uint32_t* generation);

}  // namespace vexa
