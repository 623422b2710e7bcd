// What a piece of code prints on standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

namespace vexa::test {

inline std::string Printed(const std::function<void()>& code) {
    testing::internal::CaptureStdout();
    code();
    return testing::internal::GetCapturedStdout();
}

}  // namespace vexa::test
