// Who may use the page. Event loop's thread only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct lws;

namespace vexahost::page {

class Access {
  public:
    // The names under which the page is served: `address`, where the server listens, and `others`.
    void AllowHosts(const std::string& address, const std::vector<std::string>& others, int port);

    // False when the system has no random numbers for a token.
    [[nodiscard]] bool HasToken() const { return !token.empty(); }
    [[nodiscard]] bool IsToken(std::string_view text) const;

    // The page's address, with the token.
    [[nodiscard]] std::string Url() const;

    // A request is for an allowed host, comes from the page itself, or carries the token.
    [[nodiscard]] bool IsAllowedHost(lws* wsi) const;
    [[nodiscard]] bool IsAllowedOrigin(lws* wsi) const;
    [[nodiscard]] bool CarriesToken(lws* wsi) const;

  private:
    static std::string NewToken();

    const std::string token = NewToken();
    std::vector<std::string> allowedHosts;
};

// A header of a request; empty without it. `which`: of lws_token_indexes.
[[nodiscard]] std::string HeaderOf(lws* wsi, int which);

}  // namespace vexahost::page
