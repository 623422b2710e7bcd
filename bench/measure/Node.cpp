// The node of the measured process, preloaded: a socket that the process was given when it was
// started stands behind it, so that reads and writes are plain system calls. The cable is in.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "zt_usb.h"

extern "C" {

int open(const char* path, int flags, ...) {
    if (std::strcmp(path, ZT_USB_NODE) == 0) {
        const char* const link = std::getenv("MEASURED_LINK");
        return link == nullptr ? -1 : ::dup(std::atoi(link));
    }
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return ::openat(AT_FDCWD, path, flags, mode);
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (static_cast<unsigned>(request) == ZTG_LINK_STATUS) {
        *static_cast<int*>(argument) = 1;
        return 0;
    }
    using Ioctl = int (*)(int, unsigned long, void*);
    static const auto next = reinterpret_cast<Ioctl>(::dlsym(RTLD_NEXT, "ioctl"));
    return next(descriptor, request, argument);
}

}  // extern "C"
