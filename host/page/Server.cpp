#include "page/Server.h"

#include <libwebsockets.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "page/Access.h"
#include "page/Files.h"
#include "page/LivePage.h"

namespace vexahost::page {

namespace {

constexpr int kMostConnections = 64;
constexpr long kTick = 33'333'333;   // ns
constexpr long kLook = 100'000'000;  // ns between two looks for the end without viewers
constexpr const char* kTicking = "ticking";

// What belongs to a connection. The library gives it zeroed memory.
struct Session {
    Viewer* viewer;
    Download* download;
};

class PageServer {
  public:
    PageServer(const ServerOptions& options_, const std::function<bool()>& isEnded_)
        : options(options_),
          isEnded(isEnded_),
          page(options, access, [this] { lws_cancel_service(context); }),
          files(access, options.recording, [this] { return page.Metrics(); }) {}

    Expected<Done> Run(const Announcement& announce);

    int Call(lws* wsi, lws_callback_reasons reason, Session* session, void* in, std::size_t length);

    void Tick();

  private:
    Expected<Done> Listen();
    int Take(lws* wsi, Viewer& viewer, std::string_view piece);

    Expected<Done> StartTicking(lws_vhost* host);
    void SetTick(bool hasViewers);

    const ServerOptions& options;
    const std::function<bool()>& isEnded;
    Access access;
    LivePage page;
    Files files;
    lws_context* context = nullptr;
    int connections = 0;
    int timer = -1;  // the library closes it
    std::optional<bool> isTicking{};
};

int Callback(lws* wsi, lws_callback_reasons reason, void* session, void* in, std::size_t length) {
    auto* const server = static_cast<PageServer*>(lws_context_user(lws_get_context(wsi)));
    if (server == nullptr) return 0;
    return server->Call(wsi, reason, static_cast<Session*>(session), in, length);
}

int OnTick(lws* wsi, lws_callback_reasons reason, void*, void*, std::size_t) {
    switch (reason) {
        case LWS_CALLBACK_RAW_RX_FILE:
            static_cast<PageServer*>(lws_context_user(lws_get_context(wsi)))->Tick();
            return 0;
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:  // by a stranger that asks for this protocol
            return 1;
        default:
            return 0;
    }
}

// --- the beginning and the end ------------------------------------------------------------------

Expected<Done> PageServer::Run(const Announcement& announce) {
    if (!access.HasToken())
        return Error{ErrorKind::kInvalidArgument, "the system has no random numbers"};
    auto done = Listen();
    if (done) done = page.Start();
    if (done) {
        announce(access.Url());
        while (!isEnded() && lws_service(context, 0) >= 0) continue;
    }
    page.Stop();
    if (context != nullptr) lws_context_destroy(context);
    return done;
}

Expected<Done> PageServer::Listen() {
    static const lws_protocols kProtocols[] = {
        {"http", Callback, sizeof(Session), Viewer::kLongestRequest, 0, nullptr, 0},
        {"vexa-page", Callback, sizeof(Session), Viewer::kLongestRequest, 0, nullptr, 0},
        {kTicking, OnTick, 0, 0, 0, nullptr, 0},
        {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
    lws_set_log_level(0, nullptr);
    lws_context_creation_info info{};
    info.port = options.port;
    info.iface = options.address.c_str();
    info.protocols = kProtocols;
    info.gid = -1;
    info.uid = -1;
    info.user = this;
    info.timeout_secs = 5;  // for heads
    info.keepalive_timeout = 30;
    info.ka_time = 30;
    info.ka_probes = 3;
    info.ka_interval = 5;
    info.server_string = "vexa-host";
    info.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND | LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
    context = lws_create_context(&info);
    lws_vhost* const host = context == nullptr ? nullptr : lws_create_vhost(context, &info);
    if (host == nullptr) {
        return Error{ErrorKind::kCannotConnect,
                     "cannot listen on " + options.address + " port " +
                         std::to_string(options.port) +
                         ": it is in use, or no address of this machine"};
    }
    access.AllowHosts(options.address, options.hosts, lws_get_vhost_listen_port(host));
    return StartTicking(host);
}

// The library's own timers end in a busy wait of up to a millisecond.
Expected<Done> PageServer::StartTicking(lws_vhost* host) {
    lws_sock_file_fd_type file;
    file.filefd = timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timer < 0 || lws_adopt_descriptor_vhost(host, LWS_ADOPT_RAW_FILE_DESC, file, kTicking,
                                                nullptr) == nullptr) {
        return Error{ErrorKind::kInvalidArgument,
                     std::string("no timer can be made: ") + std::strerror(errno)};
    }
    connections = 0;  // the timer is none
    SetTick(false);
    return Done{};
}

void PageServer::SetTick(bool hasViewers) {
    if (isTicking == hasViewers) return;  // who comes and goes must not put it off
    isTicking = hasViewers;
    const timespec period{0, hasViewers ? kTick : kLook};
    const itimerspec times{period, period};
    timerfd_settime(timer, 0, &times, nullptr);
}

void PageServer::Tick() {
    std::uint64_t count = 0;
    if (::read(timer, &count, sizeof count) <= 0) return;
    page.Look();
    if (page.HasViewers()) page.Tick();
}

int PageServer::Call(lws* wsi, lws_callback_reasons reason, Session* session, void* in,
                     std::size_t length) {
    const std::string_view text(static_cast<const char*>(in), in == nullptr ? 0 : length);
    switch (reason) {
        case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
            return connections >= kMostConnections ? 1 : 0;
        case LWS_CALLBACK_WSI_CREATE:
            ++connections;
            return 0;
        case LWS_CALLBACK_WSI_DESTROY:
            --connections;
            return 0;
        case LWS_CALLBACK_HTTP:
            return files.Answer(wsi, session->download, text);
        case LWS_CALLBACK_HTTP_WRITEABLE:
            return Files::SendMore(wsi, session->download);
        case LWS_CALLBACK_CLOSED_HTTP:
        case LWS_CALLBACK_HTTP_DROP_PROTOCOL:
            if (session != nullptr) Files::Forget(session->download);
            return 0;
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
            return access.IsAllowedHost(wsi) && access.IsAllowedOrigin(wsi) ? 0 : 1;
        case LWS_CALLBACK_ESTABLISHED:
            session->viewer = &page.Begin(wsi);
            SetTick(true);
            return 0;
        case LWS_CALLBACK_CLOSED:
            if (session->viewer != nullptr) page.End(*std::exchange(session->viewer, nullptr));
            SetTick(page.HasViewers());
            return 0;
        case LWS_CALLBACK_TIMER:
            return session != nullptr && session->viewer != nullptr && !session->viewer->isKnown
                       ? -1
                       : 0;
        case LWS_CALLBACK_RECEIVE:
            return Take(wsi, *session->viewer, text);
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return Viewers::Send(wsi, *session->viewer);
        case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
            page.SendNews();
            return 0;
        default:
            return 0;
    }
}

int PageServer::Take(lws* wsi, Viewer& viewer, std::string_view piece) {
    const bool isLast = lws_is_final_fragment(wsi) != 0 && lws_remaining_packet_payload(wsi) == 0;
    if (!page.Take(viewer, piece, isLast)) return -1;
    if (viewer.HasMore()) lws_callback_on_writable(wsi);
    return 0;
}

}  // namespace

Expected<Done> Serve(const ServerOptions& options, const Announcement& announce,
                     const std::function<bool()>& isEnded) {
    PageServer server(options, isEnded);
    return server.Run(announce);
}

}  // namespace vexahost::page
