#include "mux/MuxChildren.h"

#include <algorithm>
#include <cstdio>

#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr std::uint32_t kLockRetryMs = 2;

// Set at start-up, before any callback can come.
std::atomic<MuxChildren*> childrenInUse{nullptr};

}  // namespace

bool MuxChildren::Init() {
    Destroy();
    table = MuxChildTable{};
    lastLinkUp = 0;
    generation = 0;
    hostConnected = 0;

    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    initialised = pthread_mutex_init(&mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    if (!initialised) std::puts("Failed to init mutex in HostVEXMuxController_Init.");
    return initialised;
}

void MuxChildren::Destroy() {
    if (!initialised) return;
    initialised = false;
    pthread_mutex_destroy(&mutex);
}

bool MuxChildren::Lock(int timeoutMs) {
    const int attempts = (timeoutMs + 1) / 2 + 1;
    for (int tried = 0; initialised && tried < attempts; ++tried) {
        if (tried > 0) OSSleep(kLockRetryMs);
        if (pthread_mutex_trylock(&mutex) == 0) return true;
    }
    std::puts("Trying to lock mutex failed");
    return false;
}

void MuxChildren::Unlock() { pthread_mutex_unlock(&mutex); }

MuxChild* MuxChildren::Locate(std::uint32_t id) {
    const auto end = table.entries.begin() + static_cast<std::ptrdiff_t>(table.count);
    const auto found = std::find_if(table.entries.begin(), end,
                                    [&](const MuxChild& child) { return child.id == id; });
    return found == end ? nullptr : &*found;
}

MuxChild* MuxChildren::LocateController() {
    const auto end = table.entries.begin() + static_cast<std::ptrdiff_t>(table.count);
    const auto found = std::find_if(table.entries.begin(), end,
                                    [](const MuxChild& child) { return child.is_controller != 0; });
    return found == end ? nullptr : &*found;
}

std::size_t MuxChildren::Count() {
    const Hold hold(*this);
    return hold.Held() ? table.count : 0;
}

bool MuxChildren::Find(std::uint32_t id, MuxChild& entry) {
    return FindAndChange(id, entry, [](MuxChild&) {});
}

bool MuxChildren::Add(const MuxChild& entry) {
    const Hold hold(*this);
    if (!hold.Held() || table.count == kMaxChildren || Locate(entry.id) != nullptr) return false;
    table.entries[table.count++] = entry;
    return true;
}

bool MuxChildren::Remove(std::uint32_t id) {
    const Hold hold(*this);
    MuxChild* found = hold.Held() ? Locate(id) : nullptr;
    if (found == nullptr) return false;
    std::move(found + 1, table.entries.data() + table.count, found);
    --table.count;
    return true;
}

bool MuxChildren::Get(std::size_t index, MuxChild& entry) {
    const Hold hold(*this);
    if (!hold.Held() || index >= table.count) return false;
    entry = table.entries[index];
    return true;
}

std::uint32_t MuxChildren::ControllerId() {
    const Hold hold(*this);
    const MuxChild* controller = hold.Held() ? LocateController() : nullptr;
    return controller == nullptr ? 0 : controller->id;
}

void MuxChildren::Clear() {
    const Hold hold(*this);
    if (hold.Held()) table.count = 0;
}

MuxChild MuxChildren::TakeControllerSequence() {
    const Hold hold(*this);
    MuxChild* controller = hold.Held() ? LocateController() : nullptr;
    if (controller == nullptr) return {};
    const MuxChild taken = *controller;
    ++controller->seq;
    return taken;
}

std::uint32_t MuxChildren::ConnectionGeneration(std::uint8_t linkUp) {
    if (lastLinkUp.exchange(linkUp) != linkUp) ++generation;
    return generation;
}

std::uint32_t MuxChildren::ReportLinkStatus(std::uint8_t linkUp) {
    const Hold hold(*this);
    return hold.Held() ? ConnectionGeneration(linkUp) : 0;
}

bool MuxChildren::MarkHostConnected(bool connected) {
    const Hold hold(*this);
    if (!hold.Held()) return false;
    hostConnected = connected ? 1 : 0;
    return true;
}

bool HostVEXMuxController_Init(MuxChildren& children) {
    childrenInUse = &children;
    return children.Init();
}

MuxChildren* HostVEXMuxController_Children() { return childrenInUse; }

void SetHostConnected(bool connected, std::uint32_t* generation) {
    MuxChildren* children = childrenInUse;
    const std::uint32_t reported =
        children != nullptr ? children->ReportLinkStatus(connected ? 1 : 0) : 0;
    if (generation != nullptr) *generation = reported;
}

void HostVEXMuxController_Destroy() {
    MuxChildren* children = childrenInUse.exchange(nullptr);
    if (children != nullptr) children->Destroy();
}

}  // namespace vexa
