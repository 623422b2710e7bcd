// A program for tests to run on a virtual unit. Its first argument says what it does; what it
// prints it never flushes, as the service.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "VEXA.h"
#include "vexcri.h"
#include "zt_usb.h"

namespace {

// Sends back what the host sends, until that is a full stop.
int EchoNode() {
    const int node = ::open(ZT_USB_NODE, O_RDWR | O_EXCL);
    std::printf("node %s\n", node < 0 ? "missing" : "open");
    std::array<char, 100> bytes{};
    while (node >= 0 && bytes[0] != '.') {
        const auto got = ::read(node, bytes.data(), bytes.size());
        if (got <= 0 || ::write(node, bytes.data(), static_cast<std::size_t>(got)) != got) return 1;
    }
    return 0;
}

int CallLibraries() {
    std::uint32_t session = 0;
    const std::uint32_t library = VEXA_Init();
    const auto ignore = [](void*, std::uint32_t, std::int32_t) {};
    return library == 1 && criInit("FGEN", 1, ignore, nullptr, &session) == 1 ? 0 : 1;
}

int AwaitTermination() {
    static volatile std::sig_atomic_t received = 0;
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    for (const int signal : {SIGTERM, SIGINT}) {
        std::signal(signal, [](int number) { received = number; });
    }
    std::printf("%d waits\n", static_cast<int>(::getpid()));
    while (received == 0) sigsuspend(&before);
    std::printf("ended by %d\n", static_cast<int>(received));
    return 5;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view task = argc > 1 ? argv[1] : "";
    if (task == "exit" && argc > 2) return std::atoi(argv[2]);
    if (task == "raise" && argc > 2) return std::raise(std::atoi(argv[2]));
    if (task == "echo") return EchoNode();
    if (task == "call") return CallLibraries();
    if (task == "wait") return AwaitTermination();
    return 99;
}
