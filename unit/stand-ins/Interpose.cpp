// Interposes the C library's functions that can reach the node; calls that are not about the node
// go straight on to the C library.
//
// Stood in for: open, openat and their variants by the absolute path; read, write and ioctl; fopen
// and fdopen with all of stdio on what they return; C++ streams. Not stood in for: readv, writev,
// preadv, pwritev, poll and select, splice, mmap, freopen, stat and access of the path, system
// calls made without the C library. close, dup and the like need nothing: see Node.h.
//
// The functions have names of their own, and only their symbols are those of the C library: its
// declarations vary with the compiler's options and would clash.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "stand-ins/Node.h"

#define INTERPOSE(symbol) __asm__(symbol) __attribute__((visibility("default")))

namespace vexa::unit {

namespace {

// The next definition of a function after this library's, looked up on first use. Any thread:
// several may look it up at the same time, and all find the same.
template <typename Function>
class NextDefinition {
  public:
    explicit constexpr NextDefinition(const char* name_) : name(name_) {}

    [[nodiscard]] Function* Get() {
        Function* found = function.load(std::memory_order_acquire);
        if (found == nullptr) {
            found = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
            function.store(found, std::memory_order_release);
        }
        return found;
    }

  private:
    const char* const name;
    std::atomic<Function*> function = nullptr;
};

constinit NextDefinition<int(const char*, int, ...)> nextOpen("open");
constinit NextDefinition<int(const char*, int, ...)> nextOpen64("open64");
constinit NextDefinition<int(int, const char*, int, ...)> nextOpenAt("openat");
constinit NextDefinition<int(int, const char*, int, ...)> nextOpenAt64("openat64");
constinit NextDefinition<int(const char*, int)> nextOpenChecked("__open_2");
constinit NextDefinition<int(const char*, int)> nextOpen64Checked("__open64_2");
constinit NextDefinition<int(int, const char*, int)> nextOpenAtChecked("__openat_2");
constinit NextDefinition<int(int, const char*, int)> nextOpenAt64Checked("__openat64_2");
constinit NextDefinition<ssize_t(int, void*, std::size_t)> nextRead("read");
constinit NextDefinition<ssize_t(int, void*, std::size_t, std::size_t)> nextReadChecked(
    "__read_chk");
constinit NextDefinition<ssize_t(int, const void*, std::size_t)> nextWrite("write");
constinit NextDefinition<int(int, unsigned long, ...)> nextIoctl("ioctl");
// What programs for 32-bit machines call that have 64-bit times; others have no such function.
constinit NextDefinition<int(int, unsigned long, ...)> nextIoctlTime64("__ioctl_time64");
constinit NextDefinition<std::FILE*(const char*, const char*)> nextFopen("fopen");
constinit NextDefinition<std::FILE*(const char*, const char*)> nextFopen64("fopen64");
constinit NextDefinition<std::FILE*(int, const char*)> nextFdopen("fdopen");

// The mode is passed only when the call may create a file.
mode_t ModeArgument(int flags, std::va_list arguments) {
    const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return given ? va_arg(arguments, mode_t) : 0;
}

int DescriptorOf(void* cookie) { return static_cast<int>(reinterpret_cast<std::intptr_t>(cookie)); }

// A stream on a descriptor of the node, which it closes in the end. The C library reaches the files
// behind its own streams without the functions here.
std::FILE* StreamOnNode(int descriptor, const char* mode) {
    cookie_io_functions_t functions{};
    functions.read = [](void*, char* into, std::size_t size) { return ReadNode(into, size); };
    functions.write = [](void*, const char* bytes, std::size_t size) -> ssize_t {
        // 0 stands for an error here.
        const ssize_t written = WriteNode(bytes, size);
        return written < 0 ? 0 : written;
    };
    functions.close = [](void* cookie) { return ::close(DescriptorOf(cookie)); };
    void* const cookie = reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor));
    std::FILE* const stream = ::fopencookie(cookie, mode, functions);
    // For fileno, and with it ioctl and the streams of C++.
    if (stream != nullptr) stream->_fileno = descriptor;
    return stream;
}

std::FILE* OpenStreamOnNode(const char* mode) {
    const int descriptor = OpenNode();
    if (descriptor < 0) return nullptr;
    std::FILE* const stream = StreamOnNode(descriptor, mode);
    if (stream == nullptr) ::close(descriptor);
    return stream;
}

// The service never flushes its standard output; without this, its lines would be held back when
// they go to a file or a pipe.
__attribute__((constructor)) void PrintLinesAtOnce() { std::setvbuf(stdout, nullptr, _IOLBF, 0); }

}  // namespace

extern "C" {

int InterposedOpen(const char* path, int flags, ...) INTERPOSE("open");
int InterposedOpen64(const char* path, int flags, ...) INTERPOSE("open64");
int InterposedOpenAt(int folder, const char* path, int flags, ...) INTERPOSE("openat");
int InterposedOpenAt64(int folder, const char* path, int flags, ...) INTERPOSE("openat64");
int InterposedOpenChecked(const char* path, int flags) INTERPOSE("__open_2");
int InterposedOpen64Checked(const char* path, int flags) INTERPOSE("__open64_2");
int InterposedOpenAtChecked(int folder, const char* path, int flags) INTERPOSE("__openat_2");
int InterposedOpenAt64Checked(int folder, const char* path, int flags) INTERPOSE("__openat64_2");
ssize_t InterposedRead(int descriptor, void* into, std::size_t size) INTERPOSE("read");
ssize_t InterposedReadChecked(int descriptor, void* into, std::size_t size, std::size_t capacity)
    INTERPOSE("__read_chk");
ssize_t InterposedWrite(int descriptor, const void* bytes, std::size_t size) INTERPOSE("write");
int InterposedIoctl(int descriptor, unsigned long request, ...) INTERPOSE("ioctl");
int InterposedIoctlTime64(int descriptor, unsigned long request, ...) INTERPOSE("__ioctl_time64");
std::FILE* InterposedFopen(const char* path, const char* mode) INTERPOSE("fopen");
std::FILE* InterposedFopen64(const char* path, const char* mode) INTERPOSE("fopen64");
std::FILE* InterposedFdopen(int descriptor, const char* mode) INTERPOSE("fdopen");

int InterposedOpen(const char* path, int flags, ...) {
    if (IsNodePath(path)) return OpenNode();
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return nextOpen.Get()(path, flags, mode);
}

int InterposedOpen64(const char* path, int flags, ...) {
    if (IsNodePath(path)) return OpenNode();
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return nextOpen64.Get()(path, flags, mode);
}

int InterposedOpenAt(int folder, const char* path, int flags, ...) {
    if (IsNodePath(path)) return OpenNode();
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return nextOpenAt.Get()(folder, path, flags, mode);
}

int InterposedOpenAt64(int folder, const char* path, int flags, ...) {
    if (IsNodePath(path)) return OpenNode();
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeArgument(flags, arguments);
    va_end(arguments);
    return nextOpenAt64.Get()(folder, path, flags, mode);
}

int InterposedOpenChecked(const char* path, int flags) {
    return IsNodePath(path) ? OpenNode() : nextOpenChecked.Get()(path, flags);
}

int InterposedOpen64Checked(const char* path, int flags) {
    return IsNodePath(path) ? OpenNode() : nextOpen64Checked.Get()(path, flags);
}

int InterposedOpenAtChecked(int folder, const char* path, int flags) {
    return IsNodePath(path) ? OpenNode() : nextOpenAtChecked.Get()(folder, path, flags);
}

int InterposedOpenAt64Checked(int folder, const char* path, int flags) {
    return IsNodePath(path) ? OpenNode() : nextOpenAt64Checked.Get()(folder, path, flags);
}

ssize_t InterposedRead(int descriptor, void* into, std::size_t size) {
    return IsNode(descriptor) ? ReadNode(into, size) : nextRead.Get()(descriptor, into, size);
}

ssize_t InterposedReadChecked(int descriptor, void* into, std::size_t size, std::size_t capacity) {
    // Too large a size is left to the C library, which ends the program.
    if (IsNode(descriptor) && size <= capacity) return ReadNode(into, size);
    return nextReadChecked.Get()(descriptor, into, size, capacity);
}

ssize_t InterposedWrite(int descriptor, const void* bytes, std::size_t size) {
    return IsNode(descriptor) ? WriteNode(bytes, size) : nextWrite.Get()(descriptor, bytes, size);
}

int InterposedIoctl(int descriptor, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return IsNode(descriptor) ? ControlNode(request, argument)
                              : nextIoctl.Get()(descriptor, request, argument);
}

int InterposedIoctlTime64(int descriptor, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return IsNode(descriptor) ? ControlNode(request, argument)
                              : nextIoctlTime64.Get()(descriptor, request, argument);
}

std::FILE* InterposedFopen(const char* path, const char* mode) {
    return IsNodePath(path) ? OpenStreamOnNode(mode) : nextFopen.Get()(path, mode);
}

std::FILE* InterposedFopen64(const char* path, const char* mode) {
    return IsNodePath(path) ? OpenStreamOnNode(mode) : nextFopen64.Get()(path, mode);
}

std::FILE* InterposedFdopen(int descriptor, const char* mode) {
    return IsNode(descriptor) ? StreamOnNode(descriptor, mode) : nextFdopen.Get()(descriptor, mode);
}

}  // extern "C"

}  // namespace vexa::unit
