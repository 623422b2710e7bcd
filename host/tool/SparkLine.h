// A curve in one line of text.
#pragma once

#include <cstddef>
#include <deque>
#include <string>

/// The newest of `values` as at most `columns` characters, each as high as its value's place
/// between the lowest and the highest of those shown. Block characters, or ASCII without `unicode`.
std::string SparkLine(const std::deque<double>& values, std::size_t columns, bool unicode);
