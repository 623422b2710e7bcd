// Diagnostics, clock, sleep and byte packing, for every other folder of the service.
//
// There is one diagnostic channel, plain lines on standard output, which is never flushed here. Any
// thread.
#pragma once

#include <cstdint>
#include <string>

namespace vexa {

// The level that every trace of the service uses.
inline constexpr int kTraceLevel = 10;

// Prints "file(line) : message" and a newline; without a prefix when `file` is null or empty or
// `line` is -1. The whole text goes out in one call, so lines of two threads never mix. The forms
// with a level print only when the level is at or above the threshold.
void Trace(int level, const char* message, const char* file, int line);
void Trace(int level, const std::string& message, const char* file, int line);
void Trace(int level, const void* pointer, const char* file, int line);
void Trace(const char* message, const char* file, int line);
void Trace(const std::string& message, const char* file, int line);
void Trace(const void* pointer, const char* file, int line);

// Sets the lowest level that is printed; 100 until set.
void SetTraceThreshold(int threshold);

// Returns `condition`. When it is 0, prints "file Line: line" first; never ends the process.
int OSAssert(int condition, const char* file, int line);

// Wall-clock milliseconds, low 32 bits; wraps after 49.7 days and jumps when the clock is set.
// Measure intervals as the unsigned difference of two readings.
std::uint32_t OSGetMilliseconds();

// Blocks the calling thread; a signal ends it early. The microseconds are computed in 32 bits, so
// 4,294,968 ms and more wrap to something shorter.
void OSSleep(std::uint32_t milliseconds);

// The rest of this header has no caller in the service: it belongs to the interface.

// Processor time of the process in clock ticks.
double OSGetProcessorTime();

// Date and time of the build, such as "Aug 24 2009 06:29:03"; where SOURCE_DATE_EPOCH was set at
// configuration, that moment in UTC.
std::string GetBuildDateTime();

// Texts of the two kinds of exception report.
std::string GeneralExceptionText();
std::string MemoryExceptionText();

// Byte packing; the first byte is the least significant. False, and nothing is written, when a
// pointer is null. The second forms do the same.
bool OSSplit32(std::uint32_t value, std::uint8_t* byte0, std::uint8_t* byte1, std::uint8_t* byte2,
               std::uint8_t* byte3);
bool OSPack32(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
              std::uint32_t* value);
bool OSSplit64(std::uint64_t value, std::uint8_t* byte0, std::uint8_t* byte1, std::uint8_t* byte2,
               std::uint8_t* byte3, std::uint8_t* byte4, std::uint8_t* byte5, std::uint8_t* byte6,
               std::uint8_t* byte7);
bool OSPack64(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
              std::uint8_t byte4, std::uint8_t byte5, std::uint8_t byte6, std::uint8_t byte7,
              std::uint64_t* value);
bool OSSplit32Second(std::uint32_t value, std::uint8_t* byte0, std::uint8_t* byte1,
                     std::uint8_t* byte2, std::uint8_t* byte3);
bool OSPack32Second(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
                    std::uint32_t* value);

}  // namespace vexa
