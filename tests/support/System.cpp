#include "support/System.h"

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "zt_usb.h"

namespace vexa::test {

namespace {

ScriptedNode* node = nullptr;
std::atomic<bool> timeIsVirtual{false};
std::atomic<std::uint64_t> virtualMicroseconds{0};
thread_local std::vector<std::int64_t> sleeps;

// Counts down; true at the call that is to fail.
bool Fails(std::atomic<int>& nth) { return nth > 0 && --nth == 0; }

int FailWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

VirtualTime::VirtualTime(std::uint64_t milliseconds) {
    virtualMicroseconds = milliseconds * 1000;
    sleeps.clear();
    timeIsVirtual = true;
}
VirtualTime::~VirtualTime() { timeIsVirtual = false; }
void VirtualTime::Advance(std::uint64_t milliseconds) {
    virtualMicroseconds += milliseconds * 1000;
}
std::vector<std::int64_t> VirtualTime::TakeSleeps() { return std::exchange(sleeps, {}); }

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

using namespace vexa::test;  // NOLINT: the functions below have the system's own names

// Each wrapper leads to the real call unless a test wants otherwise.
#define REAL(result, name, ...)        \
    result __real_##name(__VA_ARGS__); \
    result __wrap_##name(__VA_ARGS__)

extern "C" {

// `mode` and `argument` may be left out by callers; they are passed on unchanged.
REAL(int, open, const char* path, int flags, mode_t mode) {
    if (node == nullptr || std::strcmp(path, ZT_USB_NODE) != 0) {
        return __real_open(path, flags, mode);
    }
    node->openFlags = flags;
    return node->present ? dup(node->nodeEnd) : FailWith(ENOENT);
}

REAL(int, ioctl, int descriptor, unsigned long request, void* argument) {
    if (node == nullptr || request != ZTG_LINK_STATUS) {
        return __real_ioctl(descriptor, request, argument);
    }
    ++node->queries;
    if (node->queryFails) return FailWith(ENOTTY);
    *static_cast<int*>(argument) = node->pluggedIn;
    return 0;
}

REAL(ssize_t, write, int descriptor, const void* data, size_t count) {
    if (Fails(failing.write)) return FailWith(EIO);
    if (Fails(failing.shortWrite)) --count;
    return __real_write(descriptor, data, count);
}

REAL(int, select, int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout) {
    if (!timeIsVirtual || count != 0) return __real_select(count, in, out, other, timeout);
    const std::int64_t slept = timeout->tv_sec * 1'000'000LL + timeout->tv_usec;
    sleeps.push_back(slept);
    virtualMicroseconds += static_cast<std::uint64_t>(slept);
    timeval glance{0, 20};  // other threads get their turn
    return __real_select(0, nullptr, nullptr, nullptr, &glance);
}

REAL(int, gettimeofday, timeval* now, void* zone) {
    if (!timeIsVirtual) return __real_gettimeofday(now, zone);
    const std::uint64_t microseconds = virtualMicroseconds;
    now->tv_sec = static_cast<time_t>(microseconds / 1'000'000);
    now->tv_usec = static_cast<suseconds_t>(microseconds % 1'000'000);
    return 0;
}

REAL(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
     void* argument) {
    if (Fails(failing.threadCreate)) return EAGAIN;
    return __real_pthread_create(thread, attributes, body, argument);
}

REAL(int, pthread_mutex_init, pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return Fails(failing.mutexInit) ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

REAL(int, sem_init, sem_t* semaphore, int shared, unsigned value) {
    return Fails(failing.semaphoreInit) ? FailWith(ENOSPC)
                                        : __real_sem_init(semaphore, shared, value);
}

REAL(int, listen, int descriptor, int backlog) {
    return Fails(failing.listen) ? FailWith(EOPNOTSUPP) : __real_listen(descriptor, backlog);
}

REAL(int, accept, int descriptor, sockaddr* address, socklen_t* length) {
    ++counted.accepts;
    return Fails(failing.accept) ? FailWith(ECONNABORTED)
                                 : __real_accept(descriptor, address, length);
}

REAL(int, setsockopt, int descriptor, int level, int name, const void* value, socklen_t length) {
    ++counted.socketOptions;
    return __real_setsockopt(descriptor, level, name, value, length);
}

}  // extern "C"
