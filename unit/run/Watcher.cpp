#include "run/Watcher.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace vexa::unit {

namespace {

constexpr int kPipe = 0;  // the watcher's only descriptor
constexpr int kLockTries = 100;
constexpr unsigned kLockPauseUs = 10000;

FileIdentity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

// What was there when the watch began.
struct Watched {
    WatchedFolder folder;
    FileIdentity folderFile;
    std::vector<FileIdentity> socketFiles;

    explicit Watched(const WatchedFolder& folder_)
        : folder(folder_), folderFile(FileOf(folder_.path)) {
        for (const auto& socket : folder.sockets) socketFiles.push_back(FileOf(socket));
    }

    [[nodiscard]] bool IsLeft(std::size_t index) const {
        return IsSameFile(folder.sockets[index], socketFiles[index]);
    }
};

// Takes the folder as a unit does, so that a new one that has come meanwhile keeps its sockets. The
// killed process may not have let go of it yet.
bool Lock(const Descriptor& folder) {
    for (int tries = kLockTries; tries > 0; --tries) {
        if (::flock(folder.Get(), LOCK_EX | LOCK_NB) == 0) return true;
        ::usleep(kLockPauseUs);
    }
    return false;
}

void TidyUp(const Watched& watched) {
    const auto& path = watched.folder.path;
    const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || FileOf(folder.Get()) != watched.folderFile || !Lock(folder)) return;
    for (std::size_t index = 0; index < watched.folder.sockets.size(); ++index) {
        if (watched.IsLeft(index)) ::unlink(watched.folder.sockets[index].c_str());
    }
    if (watched.folder.made) ::rmdir(path.c_str());
}

[[noreturn]] void Watch(const Watched& watched, int pipe) {
    ::setsid();
    // Another name than the unit's, so that who kills units by name spares it.
    ::prctl(PR_SET_NAME, "vexa-watch");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) ::signal(signal, SIG_IGN);
    [[maybe_unused]] const int moved = ::chdir("/");  // holds no file system either
    ::dup2(pipe, kPipe);
    ::close_range(kPipe + 1, ~0U, 0);
    char dismissed = 0;
    ssize_t got = 0;
    do {
        got = ::read(kPipe, &dismissed, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 0) TidyUp(watched);
    std::_Exit(EXIT_SUCCESS);
}

}  // namespace

FileIdentity FileOf(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 ? IdentityOf(status) : FileIdentity{};
}

FileIdentity FileOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? IdentityOf(status) : FileIdentity{};
}

bool IsSameFile(const std::string& path, const FileIdentity& file) {
    return file != FileIdentity{} && FileOf(path) == file;
}

Watcher::Watcher(const WatchedFolder& folder) {
    const Watched watched(folder);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const Descriptor reading(ends[0]);
    alive = Descriptor(ends[1]);
    child = ::fork();
    if (child == 0) Watch(watched, reading.Get());
}

void Watcher::Dismiss() {
    if (child < 0) return;
    const char word = 1;
    [[maybe_unused]] const auto written = ::write(alive.Get(), &word, 1);
    ::waitpid(child, nullptr, 0);
}

}  // namespace vexa::unit
