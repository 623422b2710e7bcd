#include "stand-ins/Node.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>

#include "model/Unit.h"
#include "zt_usb.h"

namespace vexa::unit {

namespace {

constexpr int kFree = -1;
constexpr std::size_t kMaxOpens = 16;

// The descriptors of the node, each plus 1: the slots are zero before any code has run, when
// descriptor 0 must not be mistaken for the node.
std::array<std::atomic<int>, kMaxOpens> slots;

// Changes a slot from `expected` to `value`; false when no slot holds `expected`.
bool ReplaceSlot(int expected, int value) {
    for (auto& slot : slots) {
        int held = expected + 1;
        if (slot.compare_exchange_strong(held, value + 1)) return true;
    }
    return false;
}

// Waits as a driver does: false, with errno EINTR, when a signal arrives first.
bool Wait(std::uint32_t ms) { return ms == 0 || ::poll(nullptr, 0, static_cast<int>(ms)) == 0; }

// Performs a system call on the node, subject to the faults set on it.
template <typename Work>
ssize_t Perform(Call call, Work work) {
    const FaultEffect effect = Unit::Instance().Faults().Use(call);
    if (!Wait(effect.blockMs)) return -1;
    if (effect.error) errno = *effect.error;
    const ssize_t result = effect.error ? -1 : work(effect);
    const int error = errno;
    (void)Wait(effect.lateMs);
    errno = error;
    return result;
}

std::size_t Limited(std::size_t size, const FaultEffect& effect) {
    return effect.atMost ? std::min<std::size_t>(size, *effect.atMost) : size;
}

ssize_t OpenNewDescriptor() {
    Unit& unit = Unit::Instance();
    if (!unit.HasNode()) {
        errno = ENOENT;
        return -1;
    }
    (void)unit.HostCable();  // hosts are accepted from now on
    const int descriptor = ::eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) return -1;
    if (!ReplaceSlot(kFree, descriptor)) {
        ::close(descriptor);
        errno = EMFILE;
        return -1;
    }
    return descriptor;
}

int QueryLink(unsigned long request, void* argument) {
    // The request number may arrive sign-extended.
    if (static_cast<std::uint32_t>(request) != static_cast<std::uint32_t>(ZTG_LINK_STATUS)) {
        errno = ENOTTY;
        return -1;
    }
    if (argument == nullptr) {
        errno = EFAULT;
        return -1;
    }
    *static_cast<int*>(argument) = Unit::Instance().HostCable().ShowToProgram() ? 1 : 0;
    return 0;
}

}  // namespace

bool IsNodePath(const char* path) { return path != nullptr && std::strcmp(path, ZT_USB_NODE) == 0; }

bool IsNode(int descriptor) {
    if (descriptor < 0) return false;
    for (const auto& slot : slots) {
        if (slot.load(std::memory_order_relaxed) == descriptor + 1) return true;
    }
    return false;
}

int OpenNode() {
    return static_cast<int>(
        Perform(Call::kNodeOpen, [](const FaultEffect&) { return OpenNewDescriptor(); }));
}

void ForgetNode(int descriptor) { (void)ReplaceSlot(descriptor, kFree); }

ssize_t ReadNode(void* into, std::size_t size) {
    return Perform(Call::kNodeRead, [&](const FaultEffect& effect) {
        return Unit::Instance().HostCable().Read(
            {static_cast<std::uint8_t*>(into), Limited(size, effect)});
    });
}

ssize_t WriteNode(const void* bytes, std::size_t size) {
    return Perform(Call::kNodeWrite, [&](const FaultEffect& effect) {
        return Unit::Instance().HostCable().Write(
            {static_cast<const std::uint8_t*>(bytes), Limited(size, effect)});
    });
}

int ControlNode(unsigned long request, void* argument) {
    return static_cast<int>(Perform(Call::kNodeIoctl, [&](const FaultEffect&) -> ssize_t {
        return QueryLink(request, argument);
    }));
}

}  // namespace vexa::unit
