// What the service's pauses and system calls cost without the service: a reader that blocks in
// read, a main loop that sleeps 10 ms, and a writer that every 30 ms writes a frame header and then
// WRITE_BYTES bytes. It looks at no byte.
//
//   vexa-floor WRITE_BYTES
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <thread>

#include "protocol/FrameHeader.h"
#include "zt_usb.h"

namespace {

void Sleep(int milliseconds) {
    timeval pause{0, static_cast<suseconds_t>(milliseconds) * 1000};
    ::select(0, nullptr, nullptr, nullptr, &pause);
}

void Read(int node) {
    std::array<std::uint8_t, 3000> chunk;
    while (::read(node, chunk.data(), chunk.size()) > 0) continue;
}

void Write(int node, std::size_t size) {
    std::array<std::uint8_t, 10000> bytes{};
    std::array<std::uint8_t, vexa::kFrameHeaderSize> header{};
    vexa::BuildFrameHeader(header, static_cast<std::uint32_t>(size));
    for (;; Sleep(30)) {
        if (size == 0) continue;
        if (::write(node, header.data(), header.size()) < 0) return;
        if (::write(node, bytes.data(), size) < 0) return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int node = ::open(ZT_USB_NODE, O_RDWR);
    if (node < 0 || argc != 2) return EXIT_FAILURE;
    const auto size = static_cast<std::size_t>(std::atoi(argv[1]));
    std::thread(Read, node).detach();
    std::thread(Write, node, size).detach();
    for (;;) Sleep(10);
}
