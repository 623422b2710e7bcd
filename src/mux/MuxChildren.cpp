#include "mux/MuxChildren.h"

#include <algorithm>
#include <cstdio>

#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr std::uint32_t kLockRetryMs = 2;

// Set at start-up, before any callback can come.
std::atomic<MuxChildren*> childrenInUse{nullptr};

template <typename Matches>
MuxChild* FirstOf(MuxChildTable& table, Matches matches) {
    const auto end = table.entries.begin() + static_cast<std::ptrdiff_t>(table.count);
    const auto found = std::find_if(table.entries.begin(), end, matches);
    return found == end ? nullptr : &*found;
}

}  // namespace

bool ControllerMutex::Init() {
    Destroy();
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    initialised = pthread_mutex_init(&native, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    if (!initialised) std::puts("Failed to init mutex in HostVEXMuxController_Init.");
    return initialised;
}

void ControllerMutex::Destroy() {
    if (!initialised) return;
    initialised = false;
    pthread_mutex_destroy(&native);
}

bool ControllerMutex::Lock(int timeoutMs) {
    const int attempts = (timeoutMs + 1) / 2 + 1;
    for (int tried = 0; initialised && tried < attempts; ++tried) {
        if (tried > 0) OSSleep(kLockRetryMs);
        if (pthread_mutex_trylock(&native) == 0) return true;
    }
    std::puts("Trying to lock mutex failed");
    return false;
}

void ControllerMutex::Unlock() { pthread_mutex_unlock(&native); }

// Unchecked: no other thread knows of the children yet, and there may be no mutex to lock.
bool MuxChildren::Init() VEXA_UNCHECKED {
    table = MuxChildTable{};
    lastLinkUp = 0;
    generation = 0;
    hostConnected = 0;
    return mutex.Init();
}

MuxChild* MuxChildren::Locate(std::uint32_t id) {
    return FirstOf(table, [&](const MuxChild& child) { return child.id == id; });
}

MuxChild* MuxChildren::LocateController() {
    return FirstOf(table, [](const MuxChild& child) { return child.is_controller != 0; });
}

std::size_t MuxChildren::Count() {
    return WithLock([&]() VEXA_REQUIRES(mutex) { return table.count; });
}

bool MuxChildren::Find(std::uint32_t id, MuxChild& entry) {
    return FindAndChange(id, entry, [](MuxChild&) {});
}

bool MuxChildren::Add(const MuxChild& entry) {
    return WithLock([&]() VEXA_REQUIRES(mutex) {
        if (table.count == kMaxChildren || Locate(entry.id) != nullptr) return false;
        table.entries[table.count++] = entry;
        return true;
    });
}

bool MuxChildren::Remove(std::uint32_t id) {
    return WithLock([&]() VEXA_REQUIRES(mutex) {
        MuxChild* const found = Locate(id);
        if (found == nullptr) return false;
        std::move(found + 1, table.entries.data() + table.count, found);
        --table.count;
        return true;
    });
}

MuxChildTable MuxChildren::Copy() {
    return WithLock([&]() VEXA_REQUIRES(mutex) { return table; });
}

std::uint32_t MuxChildren::ControllerId() {
    return WithLock([&]() VEXA_REQUIRES(mutex) {
        const MuxChild* const controller = LocateController();
        return controller == nullptr ? 0 : controller->id;
    });
}

void MuxChildren::Clear() {
    WithLock([&]() VEXA_REQUIRES(mutex) { return table.count = 0; });
}

MuxChild MuxChildren::TakeControllerSequence() {
    return WithLock([&]() VEXA_REQUIRES(mutex) {
        MuxChild* const controller = LocateController();
        if (controller == nullptr) return MuxChild{};
        const MuxChild before = *controller;
        ++controller->seq;
        return before;
    });
}

std::uint32_t MuxChildren::ConnectionGeneration(std::uint8_t linkUp) {
    // A change is rare, and an exchange costs as much as a lock.
    if (lastLinkUp != linkUp && lastLinkUp.exchange(linkUp) != linkUp) ++generation;
    return generation;
}

std::uint32_t MuxChildren::ReportLinkStatus(std::uint8_t linkUp) {
    return WithLock([&] { return ConnectionGeneration(linkUp); });
}

bool MuxChildren::MarkHostConnected(bool connected) {
    return WithLock([&] {
        hostConnected = connected ? 1 : 0;
        return true;
    });
}

bool HostVEXMuxController_Init(MuxChildren& children) {
    childrenInUse = &children;
    return children.Init();
}

MuxChildren* HostVEXMuxController_Children() { return childrenInUse; }

void HostVEXMuxController_Destroy() {
    MuxChildren* const children = childrenInUse.exchange(nullptr);
    if (children != nullptr) children->Destroy();
}

void SetHostConnected(bool connected, std::uint32_t* generation) {
    MuxChildren* const children = childrenInUse;
    const std::uint32_t reported =
        children != nullptr ? children->ReportLinkStatus(connected ? 1 : 0) : 0;
    if (generation != nullptr) *generation = reported;
}

}  // namespace vexa
