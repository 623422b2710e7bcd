#include "stand-ins/Node.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>

#include "foundation/Mutex.h"
#include "model/Runtime.h"
#include "model/Unit.h"
#include "zt_usb.h"

namespace vexa::unit {

namespace {

// The inode of the socket behind the node's descriptors; 0: the node has not been opened.
std::atomic<ino_t> nodeInode = 0;

Mutex socketMutex;
int nodeSocket VEXA_GUARDED_BY(socketMutex) = -1;  // stays open, so that its inode stays its own

// Returns the socket behind the node's descriptors; -1, with errno, when it cannot be made.
int NodeSocket() VEXA_REQUIRES(socketMutex) {
    // A program that closes every descriptor has closed this one, too.
    if (IsNode(nodeSocket)) return nodeSocket;
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct stat status {};
    if (made < 0 || ::fstat(made, &status) != 0) return -1;
    nodeSocket = made;
    nodeInode = status.st_ino;
    return made;
}

// Waits as a driver does: false, with errno EINTR, when a signal arrives first.
bool Wait(std::uint32_t ms) { return ms == 0 || ::poll(nullptr, 0, static_cast<int>(ms)) == 0; }

// Performs a system call on the node, subject to the faults set on it.
template <typename Work>
ssize_t Perform(Call call, Work work) {
    return OrFail(ssize_t{-1}, [&]() -> ssize_t {
        const FaultEffect effect = Unit::Instance().Faults().Use(call);
        if (!Wait(effect.blockMs)) return -1;
        if (effect.error) errno = *effect.error;
        const ssize_t result = effect.error ? -1 : work(effect);
        const int error = errno;
        (void)Wait(effect.lateMs);
        errno = error;
        return result;
    });
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
    const MutexLock lock(socketMutex);
    const int socket = NodeSocket();
    return socket < 0 ? -1 : ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
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
    const ino_t inode = nodeInode;
    if (inode == 0) return false;
    const int error = errno;
    struct stat status {};
    const bool isNode =
        ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == inode;
    errno = error;
    return isNode;
}

int OpenNode() {
    return static_cast<int>(
        Perform(Call::kNodeOpen, [](const FaultEffect&) { return OpenNewDescriptor(); }));
}

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
