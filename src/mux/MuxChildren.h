// The open children and the state of the host connection, under the controller mutex.
//
// Any thread may call anything here: the main thread and the library's read-callback threads do.
// Entries are copied in and out whole and never referenced outside the lock. Each operation takes
// the lock with 1000 ms and fails (0, false) when it cannot. No library call is made under it.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

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
    std::uint32_t warned = 0;             // the one message about a read of the wrong size is out
};

inline constexpr std::size_t kMaxChildren = 10;

// Up to ten entries, in order of addition.
struct MuxChildTable {
    std::array<MuxChild, kMaxChildren> entries{};
    std::size_t count = 0;
};

class MuxChildren {
  public:
    static constexpr int kLockTimeoutMs = 1000;

    MuxChildren() = default;
    ~MuxChildren() { Destroy(); }
    MuxChildren(const MuxChildren&) = delete;
    MuxChildren& operator=(const MuxChildren&) = delete;

    // Empties everything and makes the mutex. False, with a line, when it cannot be made; every
    // table operation then fails.
    bool Init();
    void Destroy();

    // Tries the recursive mutex (timeoutMs + 1) / 2 + 1 times, 2 ms apart. Prints a line and
    // returns false when it never got it.
    bool Lock(int timeoutMs);
    void Unlock();

    std::size_t Count();
    bool Find(std::uint32_t id, MuxChild& entry);
    // Fails when the id exists or ten entries are present.
    bool Add(const MuxChild& entry);
    // Later entries move down one place.
    bool Remove(std::uint32_t id);
    bool Get(std::size_t index, MuxChild& entry);
    // Id of the first controller entry, 0 if there is none.
    std::uint32_t ControllerId();
    void Clear();

    // Looks the child up and lets `change` alter it in place of the table, all under one hold of
    // the lock, so that no other thread sees or takes the same sequence number. `entry` receives a
    // copy of what it was before. False when the child is gone.
    template <typename Change>
    bool FindAndChange(std::uint32_t id, MuxChild& entry, Change change) {
        const Hold hold(*this);
        MuxChild* found = hold.Held() ? Locate(id) : nullptr;
        if (found == nullptr) return false;
        entry = *found;
        change(*found);
        return true;
    }

    // The controller's entry, its sequence number taken; an entry of zeros when there is none.
    MuxChild TakeControllerSequence();

    // The host link's state as the main loop sees it: notes `linkUp` and counts a change. Returns
    // the connection generation. Takes no lock.
    std::uint32_t ConnectionGeneration(std::uint8_t linkUp);
    // The same for a state that another thread reports, under the lock; 0 without it.
    std::uint32_t ReportLinkStatus(std::uint8_t linkUp);

    // The mark that a host is connected.
    [[nodiscard]] bool IsHostConnected() const { return hostConnected != 0; }
    bool MarkHostConnected(bool connected);

  private:
    // The lock, for a scope.
    class Hold {
      public:
        explicit Hold(MuxChildren& owner) : children(owner), held(owner.Lock(kLockTimeoutMs)) {}
        ~Hold() {
            if (held) children.Unlock();
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        [[nodiscard]] bool Held() const { return held; }

      private:
        MuxChildren& children;
        bool held;
    };

    MuxChild* Locate(std::uint32_t id);        // under the lock
    MuxChild* LocateController();              // under the lock
    bool initialised = false;                  // written by the main thread before others start
    pthread_mutex_t mutex{};                   // the controller mutex
    MuxChildTable table;                       // guarded by mutex
    std::atomic<std::uint8_t> lastLinkUp{0};   // the last link status seen
    std::atomic<std::uint32_t> generation{0};  // of the connection; steps with each change of it
    std::atomic<std::uint8_t> hostConnected{0};
};

// Initialises `children` and makes it the record that the library's read callbacks work on. False
// when its mutex could not be made.
bool HostVEXMuxController_Init(MuxChildren& children);

// The record in use, null before HostVEXMuxController_Init.
MuxChildren* HostVEXMuxController_Children();

// Reports that a client of a transport that knows its clients has come or gone: steps the
// connection generation of the children in use if that is news. `generation` receives it, 0 when
// the lock could not be taken; it may be null. Any thread.
void SetHostConnected(bool connected, std::uint32_t* generation);

// Takes it out of use and frees its mutex.
void HostVEXMuxController_Destroy();

}  // namespace vexa
