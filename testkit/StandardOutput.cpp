#include "testkit/StandardOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace vexa::testkit {

namespace {

bool wasClosed = false;  // standard output, at the start

}  // namespace

bool HasReaderLeft() {
    pollfd entry{STDOUT_FILENO, POLLOUT, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLERR) != 0;
}

void KeepStandardNumbers() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(number, F_GETFD) >= 0) continue;
        wasClosed = wasClosed || number == STDOUT_FILENO;
        // The lowest free number is this one.
        (void)open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

int CheckOutput(const char* program, int status, int failure) {
    errno = 0;
    const bool isWritten = std::fflush(stdout) == 0;
    const int error = errno;
    if ((isWritten && std::ferror(stdout) == 0) || HasReaderLeft()) return status;
    const char* why = isWritten ? "" : std::strerror(error);  // an earlier failure left no reason
    if (wasClosed) why = "it is closed";
    std::fprintf(stderr, "%s: cannot write to standard output%s%s\n", program,
                 *why != '\0' ? ": " : "", why);
    return status != 0 ? status : failure;
}

}  // namespace vexa::testkit
