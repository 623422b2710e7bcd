#include "page/Files.h"

#include <fcntl.h>
#include <libwebsockets.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "page/Assets.h"
#include "testkit/Descriptor.h"

namespace vexahost::page {

namespace {

using vexa::testkit::Descriptor;

constexpr std::size_t kChunk = 16384;  // of a file, at a time

constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

}  // namespace

struct Download {
    std::span<const std::uint8_t> bytes{};  // borrowed
    std::string text{};                     // or this, when `bytes` is empty
    Descriptor file{};                      // or this
    std::size_t size = 0;                   // of all of it
    std::size_t sent = 0;

    [[nodiscard]] std::span<const std::uint8_t> Bytes() const {
        if (!bytes.empty()) return bytes;
        return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
    }
};

namespace {

int Begin(lws* wsi, Download*& download, unsigned status, std::string_view type,
          std::unique_ptr<Download> wanted, std::string_view tag = {}) {
    std::array<std::uint8_t, LWS_PRE + 2048> buffer{};
    std::uint8_t* const begin = buffer.data() + LWS_PRE;
    std::uint8_t* place = begin;
    std::uint8_t* const end = buffer.data() + buffer.size() - 1;
    const auto size =
        static_cast<lws_filepos_t>(wanted->file ? ::lseek(wanted->file.Get(), 0, SEEK_END)
                                                : static_cast<off_t>(wanted->Bytes().size()));
    if (wanted->file) ::lseek(wanted->file.Get(), 0, SEEK_SET);
    const auto add = [&](const char* name, std::string_view value) {
        return lws_add_http_header_by_name(wsi, reinterpret_cast<const unsigned char*>(name),
                                           reinterpret_cast<const unsigned char*>(value.data()),
                                           static_cast<int>(value.size()), &place, end) == 0;
    };
    bool fits = lws_add_http_common_headers(wsi, status, std::string(type).c_str(), size, &place,
                                            end) == 0 &&
                add("content-security-policy:", kPolicy) &&
                add("x-content-type-options:", "nosniff") &&
                add("referrer-policy:", "no-referrer") &&
                add("cross-origin-resource-policy:", "same-origin") &&
                add("cache-control:", tag.empty() ? "no-store" : "no-cache");
    if (!tag.empty()) {
        fits = fits && add("etag:", tag);
        if (status == HTTP_STATUS_OK) fits = fits && add("content-encoding:", "gzip");
    }
    if (!fits || lws_finalize_write_http_header(wsi, begin, &place, end) != 0) return 1;
    wanted->size = static_cast<std::size_t>(size);
    if (size == 0) return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
    delete std::exchange(download, wanted.release());
    lws_callback_on_writable(wsi);
    return 0;
}

int BeginText(lws* wsi, Download*& download, unsigned status, std::string text,
              std::string_view type = "text/plain; charset=utf-8") {
    auto wanted = std::make_unique<Download>();
    wanted->text = std::move(text);
    return Begin(wsi, download, status, type, std::move(wanted));
}

}  // namespace

Files::Files(const Access& access_, std::string recording_, std::function<std::string()> metrics_)
    : access(access_), recording(std::move(recording_)), metrics(std::move(metrics_)) {}

int Files::Answer(lws* wsi, Download*& download, std::string_view path) {
    if (lws_hdr_total_length(wsi, WSI_TOKEN_GET_URI) == 0) {
        return BeginText(wsi, download, HTTP_STATUS_METHOD_NOT_ALLOWED, "GET only\n");
    }
    if (!access.IsAllowedHost(wsi)) {
        return BeginText(wsi, download, HTTP_STATUS_FORBIDDEN,
                         "This page is not served under that name (vexa-host serve --host).\n");
    }
    if (path == "/metrics") {
        return BeginText(wsi, download, HTTP_STATUS_OK, metrics(),
                         "text/plain; version=0.0.4; charset=utf-8");
    }
    if (path == "/session.pcapng") return AnswerRecording(wsi, download);
    const auto assets = Assets();
    const auto asset = std::ranges::find(assets, path == "/" ? "/index.html" : path, &Asset::path);
    if (asset == assets.end()) {
        return BeginText(wsi, download, HTTP_STATUS_NOT_FOUND, "There is no such page.\n");
    }
    auto wanted = std::make_unique<Download>();
    if (HeaderOf(wsi, WSI_TOKEN_HTTP_IF_NONE_MATCH) == asset->tag) {
        return Begin(wsi, download, HTTP_STATUS_NOT_MODIFIED, asset->type, std::move(wanted),
                     asset->tag);
    }
    wanted->bytes = asset->bytes;
    return Begin(wsi, download, HTTP_STATUS_OK, asset->type, std::move(wanted), asset->tag);
}

// The recording holds what a viewer could have seen, so that it needs the token too.
int Files::AnswerRecording(lws* wsi, Download*& download) {
    if (!access.CarriesToken(wsi)) {
        return BeginText(wsi, download, HTTP_STATUS_FORBIDDEN, "The page's token is needed.\n");
    }
    auto wanted = std::make_unique<Download>();
    if (!recording.empty()) {
        wanted->file = Descriptor(::open(recording.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!wanted->file) {
        return BeginText(wsi, download, HTTP_STATUS_NOT_FOUND, "There is no recording.\n");
    }
    return Begin(wsi, download, HTTP_STATUS_OK, "application/octet-stream", std::move(wanted));
}

int Files::SendMore(lws* wsi, Download*& download) {
    if (download == nullptr) return -1;
    std::array<std::uint8_t, LWS_PRE + kChunk> buffer;
    std::uint8_t* const begin = buffer.data() + LWS_PRE;
    std::size_t count = 0;
    bool isLast = false;
    if (download->file) {
        // The recording may have grown since its size was told.
        const ssize_t got =
            ::read(download->file.Get(), begin, std::min(kChunk, download->size - download->sent));
        if (got <= 0) return -1;
        count = static_cast<std::size_t>(got);
        isLast = download->sent + count == download->size;
    } else {
        const auto rest = download->Bytes().subspan(download->sent);
        count = std::min(rest.size(), kChunk);
        std::ranges::copy(rest.first(count), begin);
        isLast = count == rest.size();
    }
    download->sent += count;
    if (lws_write(wsi, begin, count, isLast ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) < 0) return -1;
    if (!isLast) {
        lws_callback_on_writable(wsi);
        return 0;
    }
    Forget(download);
    return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

void Files::Forget(Download*& download) { delete std::exchange(download, nullptr); }

}  // namespace vexahost::page
