#include "support/System.h"

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
std::atomic<int> realSleep{0};  // of a virtual sleep, in microseconds; 0: time is real
std::atomic<std::uint64_t> virtualMicroseconds{0};
thread_local std::vector<std::int64_t> sleeps;

// Counts down; true at the call that is to fail.
bool Fails(std::atomic<int>& nth) { return nth > 0 && --nth == 0; }

int FailWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

VirtualTime::VirtualTime(int sleepMicroseconds, std::uint64_t milliseconds) {
    virtualMicroseconds = milliseconds * 1000;
    sleeps.clear();
    realSleep = sleepMicroseconds;
}
VirtualTime::~VirtualTime() { realSleep = 0; }
void VirtualTime::Advance(std::uint64_t milliseconds) {
    virtualMicroseconds += milliseconds * 1000;
}
std::vector<std::int64_t> VirtualTime::TakeSleeps() { return std::exchange(sleeps, {}); }

ScriptedNode::ScriptedNode()
    : host([this] {
          int ends[2] = {-1, -1};
          socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
          nodeEnd = testkit::Descriptor(ends[0]);
          return ends[1];
      }()) {
    node = this;
}
ScriptedNode::~ScriptedNode() { node = nullptr; }

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
    return node->present ? dup(node->nodeEnd.Get()) : FailWith(ENOENT);
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

REAL(ssize_t, read, int descriptor, void* data, size_t count) {
    if (signalBeforeRead.exchange(false)) pause();
    return __real_read(descriptor, data, count);
}

REAL(ssize_t, write, int descriptor, const void* data, size_t count) {
    if (Fails(failing.write)) return FailWith(EIO);
    if (Fails(failing.shortWrite)) --count;
    return __real_write(descriptor, data, count);
}

REAL(int, select, int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout) {
    if (realSleep == 0 || count != 0) return __real_select(count, in, out, other, timeout);
    const std::int64_t slept = timeout->tv_sec * 1'000'000LL + timeout->tv_usec;
    sleeps.push_back(slept);
    virtualMicroseconds += static_cast<std::uint64_t>(slept);
    timeval pause{0, realSleep};  // other threads get their turn
    return __real_select(0, nullptr, nullptr, nullptr, &pause);
}

REAL(int, gettimeofday, timeval* now, void* zone) {
    if (realSleep == 0) return __real_gettimeofday(now, zone);
    const std::uint64_t microseconds = virtualMicroseconds;
    now->tv_sec = static_cast<time_t>(microseconds / 1'000'000);
    now->tv_usec = static_cast<suseconds_t>(microseconds % 1'000'000);
    return 0;
}

// What the C library's hardened headers call instead.
int __wrap___open_2(const char* path, int flags) { return __wrap_open(path, flags, 0); }
ssize_t __wrap___read_chk(int descriptor, void* data, size_t count, size_t /*room*/) {
    return __wrap_read(descriptor, data, count);
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
