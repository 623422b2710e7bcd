#include <sys/select.h>
#include <sys/time.h>

#include <initializer_list>

#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GUtils_Linux";

constexpr int kSplit32Line = 153;
constexpr int kPack32Line = 176;
constexpr int kSplit64Line = 204;
constexpr int kPack64Line = 240;
constexpr int kSplit32SecondLine = 268;
constexpr int kPack32SecondLine = 294;

bool Split(std::uint64_t value, std::initializer_list<std::uint8_t*> bytes, int line) {
    for (const std::uint8_t* byte : bytes) {
        if (byte == nullptr) return false;
    }
    const int fits = bytes.size() <= sizeof value ? 1 : 0;  // GCOVR_EXCL_BR_LINE: always
    OSAssert(fits, kModule, line);
    for (std::uint8_t* byte : bytes) {
        *byte = static_cast<std::uint8_t>(value);
        value >>= 8U;
    }
    return true;
}

template <typename Value>
bool Pack(std::initializer_list<std::uint8_t> bytes, Value* value, int line) {
    if (value == nullptr) return false;
    const int fits = bytes.size() == sizeof *value ? 1 : 0;  // GCOVR_EXCL_BR_LINE: always
    OSAssert(fits, kModule, line);
    Value packed = 0;
    unsigned shift = 0;
    for (const std::uint8_t byte : bytes) {
        packed |= static_cast<Value>(byte) << shift;
        shift += 8U;
    }
    *value = packed;
    return true;
}

}  // namespace

std::uint32_t OSGetMilliseconds() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000U +
                                      static_cast<std::uint64_t>(now.tv_usec) / 1000U);
}

void OSSleep(std::uint32_t milliseconds) {
    const std::uint32_t microseconds = milliseconds * 1000U;
    timeval pause{};
    pause.tv_sec = static_cast<decltype(pause.tv_sec)>(microseconds / 1'000'000U);
    pause.tv_usec = static_cast<decltype(pause.tv_usec)>(microseconds % 1'000'000U);
    select(0, nullptr, nullptr, nullptr, &pause);
}

bool OSSplit32(std::uint32_t value, std::uint8_t* byte0, std::uint8_t* byte1, std::uint8_t* byte2,
               std::uint8_t* byte3) {
    return Split(value, {byte0, byte1, byte2, byte3}, kSplit32Line);
}

bool OSPack32(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
              std::uint32_t* value) {
    return Pack({byte0, byte1, byte2, byte3}, value, kPack32Line);
}

bool OSSplit64(std::uint64_t value, std::uint8_t* byte0, std::uint8_t* byte1, std::uint8_t* byte2,
               std::uint8_t* byte3, std::uint8_t* byte4, std::uint8_t* byte5, std::uint8_t* byte6,
               std::uint8_t* byte7) {
    return Split(value, {byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7}, kSplit64Line);
}

bool OSPack64(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
              std::uint8_t byte4, std::uint8_t byte5, std::uint8_t byte6, std::uint8_t byte7,
              std::uint64_t* value) {
    return Pack({byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7}, value, kPack64Line);
}

bool OSSplit32Second(std::uint32_t value, std::uint8_t* byte0, std::uint8_t* byte1,
                     std::uint8_t* byte2, std::uint8_t* byte3) {
    return Split(value, {byte0, byte1, byte2, byte3}, kSplit32SecondLine);
}

bool OSPack32Second(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
                    std::uint32_t* value) {
    return Pack({byte0, byte1, byte2, byte3}, value, kPack32SecondLine);
}

}  // namespace vexa
