// TCP on the loopback interface.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace vexa::test {

inline sockaddr_in LoopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// A TCP port that was free a moment ago.
inline std::uint16_t FreePort() {
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof address;
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
    close(probe);
    return ntohs(address.sin_port);
}

// A connection to `port`, -1 when nobody listens there.
inline int ConnectLoopback(std::uint16_t port) {
    const sockaddr_in address = LoopbackAddress(port);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return descriptor;
    }
    close(descriptor);
    return -1;
}

}  // namespace vexa::test
