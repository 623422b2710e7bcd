#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "devices/GServerSocketDevice.h"
#include "foundation/GUtils.h"
#include "foundation/Mutex.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GServerSocketDevice_Linux";
constexpr int kTraceLine = 118;
constexpr int kOpenFailedLine = 376;
constexpr int kCloseFailedLine = 305;
constexpr int kCloseGuardLine = 398;
constexpr int kWriteGuardLine = 445;

constexpr int kBacklog = 1;

// A client whose host has vanished is given up after about half a minute of silence.
constexpr int kKeepAliveIdleSeconds = 15;
constexpr int kKeepAliveIntervalSeconds = 5;
constexpr int kKeepAliveProbes = 3;

void Say(const std::string& text) { Trace(kTraceLevel, text, kModule, kTraceLine); }

void SetOption(int descriptor, int level, int name, int value) {
    setsockopt(descriptor, level, name, &value, sizeof value);
}

// One client is served at a time: one that vanished without a word must not keep all others out.
void KeepAlive(int client) {
    SetOption(client, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    SetOption(client, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    SetOption(client, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    SetOption(client, SOL_SOCKET, SO_KEEPALIVE, 1);
}

struct SocketOSData : TransportRecord {
    ~SocketOSData() override { SocketOSData::Close(); }

    [[nodiscard]] bool IsOpen() const override { return listener != -1; }
    bool Open(const GPortRef& port) override;
    // The client's socket is not touched: the reader closes it on its way out.
    void Close() override;
    void Read() override;
    [[nodiscard]] bool CanWrite() const override { return client != -1; }
    ssize_t Write(const void* data, int count) override;

    void Serve(int accepted);
    void Receive(int accepted) const;

    std::atomic<int> listener{-1};  // set and closed by the owner, also read by the reader
    std::atomic<int> client{-1};    // set by the reader, and cleared by it under clientMutex
    std::uint16_t tcpPort = 0;
    // Held while a writer sends, so that the reader does not close the socket in the meantime.
    Mutex clientMutex;
    std::function<void(bool)> report;  // set before Open
};

bool SocketOSData::Open(const GPortRef& port) {
    tcpPort = port.port;
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (listener == -1) {
        Say("\n server socket() failed.\n");
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(tcpPort);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        Say("\n bind() failed.\n");
        return false;
    }
    if (listen(listener, kBacklog) == -1) {
        Say("\n listen() failed.\n");
        return false;
    }
    return true;
}

void SocketOSData::Close() {
    const int open = listener.exchange(-1);
    if (open != -1) close(open);
}

void SocketOSData::Read() {
    while (!reader.StopRequested()) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int accepted = accept(listener, reinterpret_cast<sockaddr*>(&peer), &length);
        if (accepted == -1) {
            Say("\n accept() failed.\n");
            return;
        }
        CloseOnExec(accepted);
        KeepAlive(accepted);
        Serve(accepted);
    }
}

void SocketOSData::Serve(int accepted) {
    client = accepted;
    Say("\n accept() succeeded. Opening client socket with id " + std::to_string(accepted) + " \n");
    if (report) report(true);
    Receive(accepted);

    shutdown(accepted, SHUT_RDWR);  // interrupts a writer whose client reads nothing any more
    {
        const MutexLock lock(clientMutex);
        close(accepted);
        client = -1;
    }
    Say("Closed client socket with id " + std::to_string(accepted) + " \n");
    if (report) report(false);
}

void SocketOSData::Receive(int accepted) const {
    std::array<unsigned char, kReadChunk> chunk;  // only the bytes received are ever set
    while (!reader.StopRequested()) {
        const ssize_t count = recv(accepted, chunk.data(), chunk.size(), 0);
        if (count < 0) return Say("\n recv() failed. errno = " + std::to_string(errno) + " \n");
        if (count == 0) return Say("\n Remote host closed socket.\n");
        Deliver(chunk.data(), count);
    }
}

ssize_t SocketOSData::Write(const void* data, int count) {
    const MutexLock lock(clientMutex);
    if (client == -1) return -1;
    // A client that has gone is a failed send, not the end of the process.
    return send(client, data, static_cast<std::size_t>(count), MSG_NOSIGNAL);
}

}  // namespace

GServerSocketDevice::GServerSocketDevice(const GPortRef* port)
    : GTransportDevice(port, {kModule, kOpenFailedLine, "\nError closing socket device.\n",
                              kCloseFailedLine, kCloseGuardLine, kWriteGuardLine}) {
    if (!GServerSocketDevice::OSInitialize()) {  // GCOVR_EXCL_BR_LINE: cannot fail
        Trace("Error - GServerSocketDevice constructor, OSInitialize() returned false.", nullptr,
              -1);
    }
}

GServerSocketDevice::~GServerSocketDevice() {
    if (isOpen) GDeviceIO::Close();
    GTransportDevice::OSUninitialize();
}

std::vector<GPortRef> GServerSocketDevice::EnumeratePorts(std::int32_t portType) {
    if (portType != GPortRef::kHostPort) return {};
    GPortRef port(GPortRef::kHostPort, "", "", "", 0, 0);
    port.SetNetworkAddress(INADDR_ANY);
    port.SetPort(kDefaultPort);
    return {port};
}

void GServerSocketDevice::SetConnectionReport(std::function<void(bool)> report) {
    static_cast<SocketOSData*>(Record())->report = std::move(report);
}

bool GServerSocketDevice::OSInitialize() {
    SetRecord(std::make_shared<SocketOSData>());
    return true;
}

}  // namespace vexa
