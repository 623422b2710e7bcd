#include "VEXA.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "Sensors.h"
#include "protocol/Packet.h"

namespace {

using namespace vexa::measure;

constexpr uint32_t kLibrary = 1;
constexpr std::chrono::milliseconds kSourcePeriod{5};

// A stream's handle is its device's type.
struct Stream {
    VEXA_ReadCallback callback = nullptr;
    void* context = nullptr;
};
std::array<Stream, 12> streams;

uint64_t sinkWrites = 0;  // touched by the service's main thread alone

// Sends blocks in bursts, a burst each 5 ms, as many as are due.
class Source {
  public:
    void Start(const Stream& stream, uint32_t size, uint32_t rate) {
        Stop();
        stopping = false;
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        thread = std::thread([this, stream, size, rate] { Send(stream, size, rate); });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    void Stop() {
        stopping = true;
        if (thread.joinable()) thread.join();
    }

  private:
    void Send(const Stream& stream, uint32_t size, uint32_t rate) const {
        using Clock = std::chrono::steady_clock;
        pthread_setname_np(pthread_self(), kSourceThread);
        const std::vector<uint8_t> block(size, 0x33);
        const auto start = Clock::now();
        for (uint64_t sent = 0; !stopping;) {
            const std::chrono::duration<double> elapsed = Clock::now() - start;
            for (const auto due = static_cast<uint64_t>(elapsed.count() * rate); sent < due;
                 ++sent) {
                stream.callback(block.data(), static_cast<int32_t>(size), stream.context);
            }
            std::this_thread::sleep_for(kSourcePeriod);
        }
    }

    std::atomic<bool> stopping{false};
    std::thread thread;
};
Source& source = *new Source;

void WriteSink(const Stream& stream, int32_t length) {
    if (length != 1) {
        ++sinkWrites;
        return;
    }
    std::array<uint8_t, 8> count{};
    vexa::StoreLe32(count, 0, static_cast<uint32_t>(sinkWrites));
    stream.callback(count.data(), static_cast<int32_t>(count.size()), stream.context);
}

}  // namespace

extern "C" {

uint32_t VEXA_Init() { return kLibrary; }
int32_t VEXA_Uninit(uint32_t /*library*/) { return 0; }
int32_t VEXA_GetDLLVersion(uint32_t /*library*/, uint16_t* major, uint16_t* minor) {
    *major = *minor = 0;
    return 0;
}
int32_t VEXA_Diags_SetDebugTraceThreshold(uint32_t /*library*/, int32_t /*level*/) { return 0; }

int32_t VEXA_GetDeviceTypeFromDeviceName(const char* name, uint32_t* type) {
    const std::string_view wanted = name;
    *type = wanted == "sink" ? kSinkType : wanted == "echo" ? kEchoType : kSourceType;
    return 0;
}

int32_t VEXA_SearchForDevices(uint32_t /*library*/, uint32_t /*type*/, int32_t /*mode*/,
                              int32_t /*reserved*/, uint32_t* /*status*/) {
    return 0;
}
uint32_t VEXA_OpenDeviceListSnapshot(uint32_t /*library*/, uint32_t type, uint32_t* count,
                                     uint32_t* /*signature*/) {
    *count = 1;
    return type;
}
int32_t VEXA_DeviceListSnapshot_GetNthEntry(uint32_t snapshot, uint32_t /*index*/, char* name,
                                            uint32_t capacity, uint32_t* /*status*/) {
    const char* const found = snapshot == kSinkType   ? "sink"
                              : snapshot == kEchoType ? "echo"
                                                      : "source";
    std::strncpy(name, found, capacity);
    return 0;
}
int32_t VEXA_CloseDeviceListSnapshot(uint32_t /*snapshot*/) { return 0; }

uint32_t VEXA_Device_Stream_Open(uint32_t /*library*/, const char* name, VEXA_ReadCallback callback,
                                 int32_t /*mode*/, void* context) {
    uint32_t type = 0;
    VEXA_GetDeviceTypeFromDeviceName(name, &type);
    streams[type] = {callback, context};
    return type;
}
int32_t VEXA_Device_Stream_Write(uint32_t stream, const void* data, int32_t length) {
    const Stream& open = streams[stream];
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (stream == kEchoType) return open.callback(bytes, length, open.context);
    if (stream == kSinkType) {
        WriteSink(open, length);
    } else if (length == 8) {
        const std::span<const uint8_t> numbers(bytes, 8);
        const uint32_t rate = vexa::LoadLe32(numbers, 4);
        if (rate == 0) {
            source.Stop();
        } else {
            source.Start(open, vexa::LoadLe32(numbers, 0), rate);
        }
    }
    return 0;
}
int32_t VEXA_Device_Stream_Close(uint32_t stream) {
    if (stream == kSourceType) source.Stop();
    return 0;
}
int32_t VEXA_Device_GetOpenDeviceName(uint32_t /*stream*/, char* name, uint32_t /*capacity*/) {
    *name = '\0';
    return 0;
}
uint32_t VEXA_Device_Open(uint32_t /*library*/, const char* /*name*/, int32_t /*mode*/) {
    return 0;
}
int32_t VEXA_Device_Close(uint32_t /*device*/) { return 0; }

}  // extern "C"
