// The page's files, as they are sent.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace vexahost::page {

struct Asset {
    std::string_view path;  // "/page.js"
    std::string_view type;
    std::string_view tag;                 // of its contents, in quotes
    std::span<const std::uint8_t> bytes;  // compressed with gzip
};

[[nodiscard]] std::span<const Asset> Assets();

}  // namespace vexahost::page
