#include "support/ScriptedNode.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zt_usb.h"

namespace vexa::test {

namespace {
ScriptedNode* node = nullptr;
}

ScriptedNode::ScriptedNode() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
    nodeEnd = ends[0];
    hostEnd = ends[1];
    node = this;
}

ScriptedNode::~ScriptedNode() {
    node = nullptr;
    close(nodeEnd);
    close(hostEnd);
}

void ScriptedNode::HostSends(const Bytes& bytes) const {
    if (send(hostEnd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) abort();
}

Bytes ScriptedNode::HostReads(std::size_t count) const {
    Bytes bytes(count);
    const ssize_t got = recv(hostEnd, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

bool ScriptedNode::HostHasNothing() const {
    pollfd poller{hostEnd, POLLIN, 0};
    return poll(&poller, 1, 0) == 0;
}

}  // namespace vexa::test

using vexa::test::node;

extern "C" {

// Declared with the argument that callers may leave out; it is passed on as it is.
int __real_open(const char* path, int flags, mode_t mode);
int __real_ioctl(int descriptor, unsigned long request, void* argument);
ssize_t __real_write(int descriptor, const void* data, size_t count);

int __wrap_open(const char* path, int flags, mode_t mode) {
    if (node == nullptr || std::strcmp(path, ZT_USB_NODE) != 0) {
        return __real_open(path, flags, mode);
    }
    node->openFlags = flags;
    if (node->present) return dup(node->nodeEnd);
    errno = ENOENT;
    return -1;
}

int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
    if (node == nullptr || request != ZTG_LINK_STATUS) {
        return __real_ioctl(descriptor, request, argument);
    }
    ++node->queries;
    if (node->queryFails) {
        errno = ENOTTY;
        return -1;
    }
    *static_cast<int*>(argument) = node->pluggedIn;
    return 0;
}

ssize_t __wrap_write(int descriptor, const void* data, size_t count) {
    if (node != nullptr && node->failWriteAt > 0 && --node->failWriteAt == 0) {
        errno = EIO;
        return -1;
    }
    if (node != nullptr && node->shortWriteAt > 0 && --node->shortWriteAt == 0) --count;
    return __real_write(descriptor, data, count);
}

}  // extern "C"
