#include "run/UnitFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "model/UnitSocket.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

// Whoever tidies up after a killed unit holds the lock for an instant.
constexpr int kLockTries = 30;
constexpr unsigned kLockPauseUs = 10000;

[[noreturn]] void Fail(const std::string& path, const char* why) {
    throw UserError("cannot make the folder " + path + ": " + why);
}

}  // namespace

UnitFolder::UnitFolder(const std::string& path_) {
    if (path_.empty()) {
        MakeTemporary();
    } else {
        Make(path_);
    }
    try {
        while (!Lock()) Make(path);
        Listen();
    } catch (...) {
        RemoveAll();
        throw;
    }
    watcher = std::make_unique<Watcher>(WatchedFolder{path, made, sockets});
}

UnitFolder::~UnitFolder() {
    RemoveAll();
    watcher->Dismiss();
}

std::string UnitFolder::HostSocketPath() const { return vexa::unit::HostSocketPath(path); }

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
    for (int tries = kLockTries; ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0; --tries) {
        if (errno != EWOULDBLOCK) {
            throw UserError("cannot lock the folder " + path + ": " + std::strerror(errno));
        }
        if (tries == 0) throw UserError("another unit is running in " + path);
        ::usleep(kLockPauseUs);
    }
    return IsSameFile(path, FileOf(lock.Get()));
}

void UnitFolder::Listen() {
    try {
        hostSocket = ListenOn(HostSocketPath());
        sockets.push_back(HostSocketPath());
        controlSocket = ListenOn(ControlSocketPath(path));
        sockets.push_back(ControlSocketPath(path));
    } catch (const std::runtime_error& error) {
        throw UserError(error.what());
    }
}

void UnitFolder::ReleaseSockets() {
    hostSocket = Descriptor();
    controlSocket = Descriptor();
}

void UnitFolder::RemoveAll() const {
    for (const auto& socket : sockets) ::unlink(socket.c_str());
    if (made) ::rmdir(path.c_str());
}

}  // namespace vexa::unit
