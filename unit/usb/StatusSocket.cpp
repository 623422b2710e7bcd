#include "usb/StatusSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "usb/Gadget.h"

namespace vexa::usb {

namespace {

std::string PathOf(const std::string& name) { return "/run/vexa-usb." + name + ".sock"; }

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

testkit::Descriptor MakeSocket(int flags) {
    return testkit::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

}  // namespace

StatusSocket::StatusSocket(const std::string& name, std::function<std::string()> lines_)
    : path(PathOf(name)), lines(std::move(lines_)), listener(MakeSocket(SOCK_NONBLOCK)) {
    // The node is ours, so what lies there is a predecessor's.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());
    const sockaddr_un address = AddressOf(path);
    constexpr int kBacklog = 8;
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.Get(), kBacklog) != 0) {
        throw SetupError("cannot make the socket " + path + ": " + std::strerror(errno));
    }
    chmod(path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH);
}

StatusSocket::~StatusSocket() { unlink(path.c_str()); }

void StatusSocket::OnConnection() {
    const testkit::Descriptor asker(
        accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!asker) return;
    // Two lines fit into any socket's buffer, so that nobody is waited for.
    const std::string text = lines();
    (void)!send(asker.Get(), text.data(), text.size(), MSG_NOSIGNAL);
}

std::string AskStatus(const std::string& name) {
    const std::string path = PathOf(name);
    const testkit::Descriptor socket = MakeSocket(0);
    // A stopped one would never answer.
    const timeval patience{2, 0};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        setsockopt(socket.Get(), SOL_SOCKET, option, &patience, sizeof patience);
    }
    const sockaddr_un address = AddressOf(path);
    if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw SetupError("no vexa-usb serves /dev/" + name + " (" + path + ": " +
                         std::strerror(errno) + ")");
    }
    std::string text;
    char chunk[512];
    for (ssize_t size; (size = read(socket.Get(), chunk, sizeof chunk)) > 0;) {
        text.append(chunk, static_cast<std::size_t>(size));
    }
    if (text.empty()) throw SetupError("the vexa-usb of /dev/" + name + " does not answer");
    return text;
}

}  // namespace vexa::usb
