#include <charconv>
#include <cstdio>
#include <system_error>

#include "vexahost/UsbTransport.h"

namespace vexahost {

Expected<UsbAddress> UsbAddress::Parse(const std::string& text) {
    constexpr std::size_t kDigits = 4;
    constexpr std::size_t kNumbers = 2 * kDigits + 1;
    const Error error{
        ErrorKind::kInvalidArgument,
        "\"" + text +
            "\" is no unit on the USB: expected VENDOR:PRODUCT or "
            "VENDOR:PRODUCT:SERIAL, the numbers of four hexadecimal digits, such as 1209:0001"};
    UsbAddress address;
    if (text.empty()) return address;
    const auto parse = [&](std::size_t begin, std::uint16_t& number) {
        if (text.size() < begin + kDigits) return false;
        const char* const first = text.data() + begin;
        const auto parsed = std::from_chars(first, first + kDigits, number, 16);
        return parsed.ec == std::errc() && parsed.ptr == first + kDigits && *first != '-';
    };
    if (!parse(0, address.vendor) || text[kDigits] != ':' || !parse(kDigits + 1, address.product))
        return error;
    if (text.size() == kNumbers) return address;
    if (text[kNumbers] != ':' || text.size() == kNumbers + 1) return error;
    address.serialNumber = text.substr(kNumbers + 1);
    return address;
}

std::string UsbAddress::Text() const {
    char numbers[16];
    std::snprintf(numbers, sizeof numbers, "%04x:%04x", vendor, product);
    return serialNumber.empty() ? numbers : std::string(numbers) + ":" + serialNumber;
}

}  // namespace vexahost
