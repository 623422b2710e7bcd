#include "foundation/GUtils.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <sstream>

namespace vexa {

namespace {

// Written once by start-up, read by every thread that traces.
std::atomic<int> traceThreshold{100};

bool IsPrinted(int level) { return traceThreshold.load(std::memory_order_relaxed) <= level; }

std::string PointerText(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
}

}  // namespace

void Trace(int level, const char* message, const char* file, int line) {
    if (IsPrinted(level)) Trace(std::string(message), file, line);
}

void Trace(int level, const std::string& message, const char* file, int line) {
    if (IsPrinted(level)) Trace(message, file, line);
}

void Trace(int level, const void* pointer, const char* file, int line) {
    if (IsPrinted(level)) Trace(PointerText(pointer), file, line);
}

void Trace(const char* message, const char* file, int line) {
    Trace(std::string(message), file, line);
}

void Trace(const void* pointer, const char* file, int line) {
    Trace(PointerText(pointer), file, line);
}

void Trace(const std::string& message, const char* file, int line) {
    std::ostringstream text;
    if (file != nullptr && *file != '\0' && line != -1) text << file << '(' << line << ") : ";
    text << message << '\n';
    std::printf("%s", text.str().c_str());
}

void SetTraceThreshold(int threshold) { traceThreshold = threshold; }

int OSAssert(int condition, const char* file, int line) {
    if (condition != 0) return condition;
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(), "%s Line: %d", file, line);
    std::puts(text.data());
    return 0;
}

double OSGetProcessorTime() { return static_cast<double>(std::clock()); }

#ifndef VEXA_BUILD_DATE_TIME  // given by a reproducible build
#define VEXA_BUILD_DATE_TIME __DATE__ " " __TIME__
#endif

std::string GetBuildDateTime() { return VEXA_BUILD_DATE_TIME; }

std::string GeneralExceptionText() { return "Truly exceptional."; }

std::string MemoryExceptionText() { return "Memory exception."; }

}  // namespace vexa
