#include "run/UnitFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "model/UnitSocket.h"
#include "run/UserError.h"
#include "testkit/ChildProcess.h"

namespace vexa::unit {

using testkit::Descriptor;

namespace {

// A watcher holds the lock for an instant; a killed unit may hold it a little longer.
constexpr int kStartLockTries = 30;
constexpr int kWatcherTries = 100;
constexpr unsigned kPauseUs = 10000;

constexpr int kPipe = 0;  // the watcher's only descriptor

[[noreturn]] void Fail(const std::string& path, const char* why) {
    throw UserError("cannot make the folder " + path + ": " + why);
}

// False, with errno, when the lock cannot be had.
bool LockWithin(int tries, const Descriptor& folder) {
    for (; ::flock(folder.Get(), LOCK_EX | LOCK_NB) != 0; --tries) {
        if (errno != EWOULDBLOCK || tries == 0) return false;
        ::usleep(kPauseUs);
    }
    return true;
}

// Whether `path` is the folder that is open, and not a later one of the same name.
bool IsFolder(const std::string& path, const Descriptor& folder) {
    struct stat open {};
    struct stat named {};
    return ::fstat(folder.Get(), &open) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// The folder of the links. Nothing but links is ever put there.
std::string LinkFolder(const std::string& folder) { return folder + "/.libraries"; }

void RemoveLinks(const std::string& folder) {
    std::error_code error;
    std::filesystem::remove_all(LinkFolder(folder), error);
}

// After the unit was killed. Its lock goes with it, unless a new unit has taken the folder over:
// then everything in it belongs to that one.
void TidyUp(const std::string& path, bool made) {
    const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || !LockWithin(kWatcherTries, folder)) return;
    // The program dies with the unit, but perhaps a moment later.
    for (const auto& socket : {HostSocketPath(path), ControlSocketPath(path)}) {
        for (int tries = kWatcherTries; tries > 0 && !RemoveStaleSocket(socket); --tries) {
            ::usleep(kPauseUs);
        }
    }
    RemoveLinks(path);
    if (made) ::rmdir(path.c_str());
}

int Watch(const std::string& folder, bool made, int pipe) {
    ::setsid();
    // Not the unit's name, so that whoever kills units by name spares the watcher.
    ::prctl(PR_SET_NAME, "vexa-watch");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) ::signal(signal, SIG_IGN);
    [[maybe_unused]] const int moved = ::chdir("/");  // keeps no file system busy either
    ::dup2(pipe, kPipe);
    ::close_range(kPipe + 1, ~0U, 0);
    char dismissed = 0;
    ssize_t got = 0;
    do {
        got = ::read(kPipe, &dismissed, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 0) TidyUp(folder, made);
    return EXIT_SUCCESS;
}

}  // namespace

Watcher::Watcher(const std::string& folder, bool made) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const Descriptor reading(ends[0]);
    alive = Descriptor(ends[1]);
    process = testkit::StartApart([&] { return Watch(folder, made, reading.Get()); });
}

Watcher::~Watcher() {
    if (process < 0) return;
    const char word = 1;
    [[maybe_unused]] const auto written = ::write(alive.Get(), &word, 1);
    ::waitpid(process, nullptr, 0);
}

UnitFolder::UnitFolder(const std::string& path_) {
    if (path_.empty()) {
        MakeTemporary();
    } else {
        Make(path_);
    }
    try {
        while (!Lock()) Make(path);
        RemoveLinks(path);  // that a killed unit has left
        Listen();
    } catch (...) {
        RemoveAll();
        throw;
    }
    watcher = std::make_unique<Watcher>(path, made);
}

UnitFolder::~UnitFolder() { RemoveAll(); }

void UnitFolder::MakeTemporary() {
    const char* const parent = std::getenv("TMPDIR");
    std::string pattern = parent == nullptr || *parent == '\0' ? "/tmp" : parent;
    pattern += "/vexa-unit-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) Fail(pattern, std::strerror(errno));
    path = std::filesystem::absolute(pattern);
    made = true;
}

void UnitFolder::Make(const std::string& path_) {
    path = std::filesystem::absolute(path_).lexically_normal();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    made = ::mkdir(path.c_str(), 0777) == 0;
    if (!made && errno != EEXIST) Fail(path_, std::strerror(errno));
    if (!std::filesystem::is_directory(path)) Fail(path_, "there is a file of that name");
}

bool UnitFolder::Lock() {
    lock = Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock && errno == ENOENT) return false;
    if (!lock) throw UserError("cannot open the folder " + path + ": " + std::strerror(errno));
    if (!LockWithin(kStartLockTries, lock)) {
        if (errno == EWOULDBLOCK) throw UserError("another unit is running in " + path);
        throw UserError("cannot lock the folder " + path + ": " + std::strerror(errno));
    }
    return IsFolder(path, lock);
}

void UnitFolder::Listen() {
    try {
        hostSocket = ListenOn(HostSocketPath(path));
        sockets.push_back(HostSocketPath(path));
        controlSocket = ListenOn(ControlSocketPath(path));
        sockets.push_back(ControlSocketPath(path));
    } catch (const std::runtime_error& error) {
        throw UserError(error.what());
    }
}

std::string UnitFolder::Link(const std::string& name, const std::string& target) {
    std::string links = LinkFolder(path);
    std::error_code error;
    hasLinks = true;
    std::filesystem::create_directory(links, error);
    std::filesystem::create_symlink(target, links + "/" + name, error);
    if (error) throw UserError("cannot make a link in " + links + ": " + error.message());
    return links;
}

void UnitFolder::ReleaseSockets() {
    hostSocket.Close();
    controlSocket.Close();
}

void UnitFolder::RemoveAll() const {
    for (const auto& socket : sockets) ::unlink(socket.c_str());
    if (hasLinks) RemoveLinks(path);
    if (made) ::rmdir(path.c_str());
}

}  // namespace vexa::unit
