// What a piece of code prints on standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "foundation/GUtils.h"

namespace vexa::test {

inline std::string Printed(const std::function<void()>& code) {
    testing::internal::CaptureStdout();
    code();
    return testing::internal::GetCapturedStdout();
}

// The same with trace lines, and with N for each number that differs from run to run: descriptors,
// mutexes, threads, addresses.
inline std::string Traced(const std::function<void()>& code) {
    SetTraceThreshold(1);
    std::string text = Printed(code);
    SetTraceThreshold(100);
    for (const std::string word : {"socket with id ", "mutex ", "thread ", ": 0x"}) {
        for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos;) {
            at += word.size();
            text.replace(at, text.find_first_not_of("-0123456789abcdef", at) - at, "N");
        }
    }
    return text;
}

}  // namespace vexa::test
