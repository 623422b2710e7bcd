#include "run/UnitFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "model/HostSocket.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

[[noreturn]] void Fail(const std::string& path, const char* why) {
    throw UserError("cannot make the folder " + path + ": " + why);
}

}  // namespace

UnitFolder::UnitFolder(const std::string& path) {
    if (path.empty()) {
        MakeTemporary();
    } else {
        Make(path);
    }
    try {
        Lock();
        Listen();
    } catch (...) {
        RemoveFolder();
        throw;
    }
}

UnitFolder::~UnitFolder() {
    ::unlink(HostSocketPath().c_str());
    RemoveFolder();
}

std::string UnitFolder::HostSocketPath() const { return vexa::unit::HostSocketPath(path_); }

void UnitFolder::MakeTemporary() {
    const char* const parent = std::getenv("TMPDIR");
    std::string path = parent == nullptr || *parent == '\0' ? "/tmp" : parent;
    path += "/vexa-unit-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) Fail(path, std::strerror(errno));
    path_ = std::filesystem::absolute(path);
    made_ = true;
}

void UnitFolder::Make(const std::string& path) {
    path_ = std::filesystem::absolute(path).lexically_normal();
    while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
    made_ = ::mkdir(path_.c_str(), 0777) == 0;
    if (!made_ && errno != EEXIST) Fail(path, std::strerror(errno));
    if (!std::filesystem::is_directory(path_)) Fail(path, "there is a file of that name");
}

void UnitFolder::Lock() {
    lock_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock_) throw UserError("cannot open the folder " + path_ + ": " + std::strerror(errno));
    if (::flock(lock_.Get(), LOCK_EX | LOCK_NB) == 0) return;
    if (errno == EWOULDBLOCK) throw UserError("another unit is running in " + path_);
    throw UserError("cannot lock the folder " + path_ + ": " + std::strerror(errno));
}

void UnitFolder::Listen() {
    try {
        hostSocket_ = ListenForHosts(path_);
    } catch (const std::runtime_error& error) {
        throw UserError(error.what());
    }
}

void UnitFolder::RemoveFolder() {
    if (made_) ::rmdir(path_.c_str());
}

}  // namespace vexa::unit
