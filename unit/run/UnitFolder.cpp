#include "run/UnitFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
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

constexpr int kConnection = 0;  // the watcher's only descriptor

// A file in each folder that a unit has created. Whoever has the folder's lock at the end removes
// both, which need not be the unit that created it.
constexpr char kMark[] = "/.vexa-unit";

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
    return ::fstat(folder.Get(), &open) == 0 && ::stat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// Whether LD_LIBRARY_PATH and LD_PRELOAD take `path` as one element, and literally.
bool FitsInList(const std::string& path) { return path.find_first_of(" \t\n:;$") == path.npos; }

// The unit's own folders are made there: $TMPDIR, or /tmp where that is not `suitable`.
template <typename Suitable>
std::string NewTemporaryFolder(const std::string& name, Suitable suitable) {
    const char* const chosen = std::getenv("TMPDIR");
    std::string pattern = "/tmp/" + name;
    if (chosen != nullptr && *chosen != '\0') {
        const std::string there = std::filesystem::absolute(chosen) / name;
        if (suitable(there)) pattern = there;
    }
    if (::mkdtemp(pattern.data()) == nullptr) Fail(pattern, std::strerror(errno));
    return pattern;
}

// Nothing but links is ever put into the folder; whatever else is there is not the unit's.
void RemoveLinks(const std::string& folder) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; entry != end;
         entry.increment(error)) {
        if (entry->is_symlink(error)) std::filesystem::remove(entry->path(), error);
    }
    ::rmdir(folder.c_str());
}

// With its lock held.
void RemoveFolderIfMade(const std::string& folder) {
    if (::unlink((folder + kMark).c_str()) == 0) ::rmdir(folder.c_str());
}

// After the unit was killed. Its lock goes with it, unless a new unit has taken the folder over:
// then everything in it belongs to that one.
void TidyUp(const std::string& path, const std::string& links) {
    if (!links.starts_with(path)) RemoveLinks(links);  // a folder that no other unit uses
    const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || !LockWithin(kWatcherTries, folder)) return;
    // The program dies with the unit, but perhaps a moment later.
    for (const auto& socket : {HostSocketPath(path), ControlSocketPath(path)}) {
        for (int tries = kWatcherTries; tries > 0 && !RemoveStaleSocket(socket); --tries) {
            ::usleep(kPauseUs);
        }
    }
    RemoveLinks(links);
    RemoveFolderIfMade(path);
}

int Watch(const std::string& folder, const std::string& links, int connection) {
    ::setsid();
    // Not the unit's name, so that whoever kills units by name spares the watcher.
    ::prctl(PR_SET_NAME, "vexa-watch");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) ::signal(signal, SIG_IGN);
    [[maybe_unused]] const int moved = ::chdir("/");  // keeps no file system busy either
    ::dup2(connection, kConnection);
    ::close_range(kConnection + 1, ~0U, 0);
    char dismissed = 0;
    ssize_t got = 0;
    do {
        got = ::read(kConnection, &dismissed, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 0) TidyUp(folder, links);
    return EXIT_SUCCESS;
}

}  // namespace

Watcher::Watcher(const std::string& folder, const std::string& links) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
    const Descriptor reading(ends[0]);
    alive = Descriptor(ends[1]);
    process = testkit::StartApart([&] { return Watch(folder, links, reading.Get()); });
}

Watcher::~Watcher() {
    if (process < 0) return;
    const char word = 1;
    // Somebody may have killed it.
    [[maybe_unused]] const auto sent = ::send(alive.Get(), &word, 1, MSG_NOSIGNAL);
    ::waitpid(process, nullptr, 0);
}

UnitFolder::UnitFolder(const std::string& path_) {
    if (path_.empty()) {
        MakeTemporary();
    } else {
        Make(path_);
    }
    while (!Lock()) Make(path);
    try {
        ChooseLinkFolder();
        Listen();
    } catch (...) {
        RemoveAll();
        throw;
    }
    watcher = std::make_unique<Watcher>(path, linkFolder);
}

UnitFolder::~UnitFolder() { RemoveAll(); }

void UnitFolder::MakeTemporary() {
    path = NewTemporaryFolder("vexa-unit-XXXXXX", [](const std::string& folder) {
        return FitsSocket(ControlSocketPath(folder));
    });
    Mark();
}

void UnitFolder::Make(const std::string& path_) {
    path = std::filesystem::absolute(path_).lexically_normal();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (::mkdir(path.c_str(), 0777) == 0) return Mark();
    if (errno != EEXIST) Fail(path_, std::strerror(errno));
    if (!std::filesystem::is_directory(path)) Fail(path_, "there is a file of that name");
}

void UnitFolder::Mark() const {
    const Descriptor mark(
        ::open((path + kMark).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
}

bool UnitFolder::Lock() {
    lock = Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock && errno == ENOENT) return false;
    if (!lock) throw UserError("cannot open the folder " + path + ": " + std::strerror(errno));
    if (!LockWithin(kStartLockTries, lock)) {
        if (errno == EWOULDBLOCK) throw UserError("another unit is running in " + path);
        const std::string why = std::strerror(errno);
        RemoveFolderIfMade(path);  // nobody else can have the lock either
        throw UserError("cannot lock the folder " + path + ": " + why);
    }
    return IsFolder(path, lock);
}

void UnitFolder::ChooseLinkFolder() {
    linkFolder = path + "/.libraries";
    RemoveLinks(linkFolder);  // that a killed unit has left
    if (!FitsInList(linkFolder)) linkFolder = NewTemporaryFolder("vexa-links-XXXXXX", FitsInList);
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
    std::error_code error;
    std::filesystem::create_directory(linkFolder, error);
    std::filesystem::create_symlink(target, linkFolder + "/" + name, error);
    if (error) throw UserError("cannot make a link in " + linkFolder + ": " + error.message());
    return linkFolder;
}

std::string UnitFolder::Listable(const std::string& folder, const std::string& name) {
    return FitsInList(folder) ? folder : Link(name, folder) + "/" + name;
}

void UnitFolder::ReleaseSockets() {
    hostSocket.Close();
    controlSocket.Close();
}

void UnitFolder::ReleaseHostSocket() {
    hostSocket.Close();
    RemoveSocket(HostSocketPath(path));
}

void UnitFolder::RemoveAll() const {
    for (const auto& socket : sockets) RemoveSocket(socket);
    RemoveLinks(linkFolder);
    RemoveFolderIfMade(path);
}

}  // namespace vexa::unit
