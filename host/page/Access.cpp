#include "page/Access.h"

#include <libwebsockets.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "page/Server.h"

namespace vexahost::page {

namespace {

// As long for a wrong word as for the right one.
bool IsSame(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i) {
        difference |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
    }
    return difference == 0;
}

}  // namespace

bool IsLoopback(const std::string& address) {
    return address.starts_with("127.") || address == "::1" || address == "localhost" ||
           address == "lo";
}

std::string HeaderOf(lws* wsi, int which) {
    std::array<char, 512> text{};
    const int length =
        lws_hdr_copy(wsi, text.data(), text.size(), static_cast<lws_token_indexes>(which));
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "";
}

std::string Access::NewToken() {
    std::array<std::uint8_t, 16> random{};
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        return "";
    std::string text;
    for (const std::uint8_t byte : random) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        text += digits.data();
    }
    return text;
}

bool Access::IsToken(std::string_view text) const { return IsSame(text, token); }

void Access::AllowHosts(const std::string& address, const std::vector<std::string>& others,
                        int port) {
    const auto allow = [&](const std::string& name) {
        const bool isV6 = name.find(':') != std::string::npos;
        allowedHosts.push_back((isV6 ? "[" + name + "]" : name) + ":" + std::to_string(port));
        if (port == 80) allowedHosts.push_back(name);
    };
    allow(address == "0.0.0.0" || address == "::" ? "127.0.0.1" : address);
    if (IsLoopback(address)) allow("localhost");
    for (const std::string& name : others) allow(name);
}

std::string Access::Url() const { return "http://" + allowedHosts.front() + "/#" + token; }

bool Access::IsAllowedHost(lws* wsi) const {
    return std::ranges::find(allowedHosts, HeaderOf(wsi, WSI_TOKEN_HOST)) != allowedHosts.end();
}

bool Access::IsAllowedOrigin(lws* wsi) const {
    return HeaderOf(wsi, WSI_TOKEN_ORIGIN) == "http://" + HeaderOf(wsi, WSI_TOKEN_HOST);
}

bool Access::CarriesToken(lws* wsi) const {
    return IsSame(HeaderOf(wsi, WSI_TOKEN_HTTP_AUTHORIZATION), "Bearer " + token);
}

}  // namespace vexahost::page
