#include "page/Server.h"

#include <fcntl.h>
#include <libwebsockets.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "foundation/Mutex.h"
#include "page/Assets.h"
#include "page/Messages.h"
#include "page/PacketLog.h"
#include "page/UnitControl.h"
#include "page/Viewers.h"
#include "vexahost/SessionRecorder.h"

namespace vexahost::page {

namespace {

constexpr int kMostConnections = 64;
constexpr lws_usec_t kTick = LWS_US_PER_SEC / 30;
constexpr lws_usec_t kLook = LWS_US_PER_SEC / 10;         // for the end
constexpr lws_usec_t kStatePeriod = LWS_US_PER_SEC / 4;   // of the counts
constexpr lws_usec_t kHelloTimeout = 5 * LWS_US_PER_SEC;  // for the token
constexpr std::size_t kMostPackets = 50;                  // a tick
constexpr std::size_t kMostLogLines = 500;
constexpr std::size_t kMostFilterText = 200;
constexpr std::size_t kChunk = 16384;  // of a file, at a time

constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

std::string NewToken() {
    std::array<std::uint8_t, 16> random{};
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        return "";
    std::string token;
    for (const std::uint8_t byte : random) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        token += digits.data();
    }
    return token;
}

// As long for a wrong word as for the right one.
bool IsSame(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i) {
        difference |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
    }
    return difference == 0;
}

std::string HeaderOf(lws* wsi, lws_token_indexes which) {
    std::array<char, 512> text{};
    const int length = lws_hdr_copy(wsi, text.data(), text.size(), which);
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "";
}

double SecondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

// What a request for a file still has to send.
struct Download {
    std::span<const std::uint8_t> bytes;  // borrowed
    std::string text;                     // or this, when `bytes` is empty
    int file = -1;                        // or this
    std::size_t size = 0;                 // of all of it
    std::size_t sent = 0;

    Download() = default;
    ~Download() {
        if (file >= 0) ::close(file);
    }
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    [[nodiscard]] std::span<const std::uint8_t> Bytes() const {
        if (!bytes.empty()) return bytes;
        return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
    }
};

// What belongs to a connection. The library gives it zeroed memory.
struct Session {
    Viewer* viewer;
    Download* download;
    bool isCounted;
};

class PageServer {
  public:
    PageServer(const ServerOptions& options_, const std::function<bool()>& isEnded_)
        : options(options_), isEnded(isEnded_) {}

    Expected<Done> Run(const Announcement& announce);

    int Call(lws* wsi, lws_callback_reasons reason, Session* session, void* in, std::size_t length);

  private:
    Expected<Done> Listen();
    void AllowHosts(int port);
    [[nodiscard]] bool IsAllowedHost(lws* wsi) const;
    [[nodiscard]] bool IsAllowedOrigin(lws* wsi) const;

    int Answer(lws* wsi, Session* session, std::string_view path);
    int AnswerWith(lws* wsi, Session* session, unsigned status, std::string_view type,
                   std::unique_ptr<Download> download, std::string_view tag = {});
    int AnswerText(lws* wsi, Session* session, unsigned status, std::string text,
                   std::string_view type = "text/plain; charset=utf-8");
    int AnswerRecording(lws* wsi, Session* session);
    int SendMore(lws* wsi, Session* session);

    void Begin(lws* wsi, Session* session);
    void End(Session* session);
    int Take(lws* wsi, Viewer& viewer, std::string_view piece, bool isLast);
    bool Obey(lws* wsi, Viewer& viewer, ViewerRequest request);
    bool Greet(lws* wsi, Viewer& viewer, const ViewerRequest& request);
    void SendLog(Viewer& viewer, const ViewerRequest& request);
    int Send(lws* wsi, Viewer& viewer);

    void Tick();
    void SendState();
    void SendPackets();
    void SendWaiting();
    void Post(std::uint64_t viewer, std::string text);
    void AddTo(std::uint64_t viewer, const std::shared_ptr<Message>& message);
    void Schedule(lws_sorted_usec_list_t& timer, lws_usec_t after,
                  void (*call)(lws_sorted_usec_list_t*));

    const ServerOptions& options;
    const std::function<bool()>& isEnded;
    PacketLog log;
    const std::string token = NewToken();
    std::vector<std::string> allowedHosts;
    lws_context* context = nullptr;
    std::unique_ptr<LiveUnit> unit;
    std::unique_ptr<UnitControl> control;
    struct Known {
        lws* wsi;
        std::unique_ptr<Viewer> viewer;
    };
    std::map<std::uint64_t, Known> viewers;
    std::uint64_t nextViewer = 1;
    std::uint64_t formerDropped = 0;  // of viewers that have left
    int connections = 0;
    std::uint64_t stateNumber = 0;
    lws_usec_t stateAt = 0;
    std::atomic<bool> hasNews = false;

    struct Posted {
        std::uint64_t viewer;
        std::string text;
    };
    vexa::Mutex mutex;
    std::vector<Posted> posted VEXA_GUARDED_BY(mutex);  // by other threads

    struct Timer {
        lws_sorted_usec_list_t list{};  // first, as the library hands its address out
        PageServer* server = nullptr;
    };
    Timer tick;
    Timer look;
};

int Callback(lws* wsi, lws_callback_reasons reason, void* session, void* in, std::size_t length) {
    auto* const server = static_cast<PageServer*>(lws_context_user(lws_get_context(wsi)));
    if (server == nullptr) return 0;
    return server->Call(wsi, reason, static_cast<Session*>(session), in, length);
}

// --- the beginning and the end ------------------------------------------------------------------

Expected<Done> PageServer::Run(const Announcement& announce) {
    if (token.empty())
        return Error{ErrorKind::kInvalidArgument, "the system has no random numbers"};
    auto unitOptions = options.unit;
    unitOptions.factory = Tapped(std::move(unitOptions.factory), log);
    if (!options.recording.empty()) {
        auto recorder = SessionRecorder::Create(options.recording);
        if (!recorder) return recorder.error();
        unitOptions.factory = Recorded(std::move(unitOptions.factory), *recorder);
    }
    if (auto listening = Listen(); !listening) return listening;
    const auto wake = [this] {
        if (!hasNews.exchange(true)) lws_cancel_service(context);
    };
    if (!options.controlSocket.empty()) {
        control = std::make_unique<UnitControl>(options.controlSocket, wake);
    }
    unit = std::make_unique<LiveUnit>(std::move(unitOptions), wake);

    announce("http://" + allowedHosts.front() + "/#" + token);
    tick.server = look.server = this;
    Schedule(look.list, kLook, [](lws_sorted_usec_list_t* list) {
        auto* const server = reinterpret_cast<Timer*>(list)->server;
        server->Schedule(*list, kLook, list->cb);
    });
    while (!isEnded() && lws_service(context, 0) >= 0) continue;
    // The unit's threads post to the viewers, so that they end first.
    unit.reset();
    control.reset();
    lws_context_destroy(context);
    return Done{};
}

Expected<Done> PageServer::Listen() {
    static const lws_protocols kProtocols[] = {
        {"http", Callback, sizeof(Session), Viewer::kLongestRequest, 0, nullptr, 0},
        {"vexa-page", Callback, sizeof(Session), Viewer::kLongestRequest, 0, nullptr, 0},
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
        if (context != nullptr) lws_context_destroy(context);
        return Error{ErrorKind::kCannotConnect,
                     "cannot listen on " + options.address + " port " +
                         std::to_string(options.port) +
                         ": it is in use, or no address of this machine"};
    }
    AllowHosts(lws_get_vhost_listen_port(host));
    return Done{};
}

void PageServer::AllowHosts(int port) {
    const auto allow = [&](const std::string& name) {
        const bool isV6 = name.find(':') != std::string::npos;
        allowedHosts.push_back((isV6 ? "[" + name + "]" : name) + ":" + std::to_string(port));
        if (port == 80) allowedHosts.push_back(name);
    };
    allow(options.address == "0.0.0.0" || options.address == "::" ? "127.0.0.1" : options.address);
    if (IsLoopback(options.address)) allow("localhost");
    for (const std::string& name : options.hosts) allow(name);
}

bool PageServer::IsAllowedHost(lws* wsi) const {
    return std::ranges::find(allowedHosts, HeaderOf(wsi, WSI_TOKEN_HOST)) != allowedHosts.end();
}

bool PageServer::IsAllowedOrigin(lws* wsi) const {
    return HeaderOf(wsi, WSI_TOKEN_ORIGIN) == "http://" + HeaderOf(wsi, WSI_TOKEN_HOST);
}

void PageServer::Schedule(lws_sorted_usec_list_t& timer, lws_usec_t after,
                          void (*call)(lws_sorted_usec_list_t*)) {
    lws_sul_schedule(context, 0, &timer, call, after);
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
            return Answer(wsi, session, text);
        case LWS_CALLBACK_HTTP_WRITEABLE:
            return SendMore(wsi, session);
        case LWS_CALLBACK_CLOSED_HTTP:
        case LWS_CALLBACK_HTTP_DROP_PROTOCOL:
            if (session != nullptr) delete std::exchange(session->download, nullptr);
            return 0;
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
            return IsAllowedHost(wsi) && IsAllowedOrigin(wsi) ? 0 : 1;
        case LWS_CALLBACK_ESTABLISHED:
            Begin(wsi, session);
            return 0;
        case LWS_CALLBACK_CLOSED:
            End(session);
            return 0;
        case LWS_CALLBACK_TIMER:
            return session != nullptr && session->viewer != nullptr && !session->viewer->isKnown
                       ? -1
                       : 0;
        case LWS_CALLBACK_RECEIVE:
            return Take(wsi, *session->viewer, text,
                        lws_is_final_fragment(wsi) != 0 && lws_remaining_packet_payload(wsi) == 0);
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return Send(wsi, *session->viewer);
        case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
            SendWaiting();
            return 0;
        default:
            return 0;
    }
}

// --- files --------------------------------------------------------------------------------------

int PageServer::Answer(lws* wsi, Session* session, std::string_view path) {
    if (lws_hdr_total_length(wsi, WSI_TOKEN_GET_URI) == 0) {
        return AnswerText(wsi, session, HTTP_STATUS_METHOD_NOT_ALLOWED, "GET only\n");
    }
    if (!IsAllowedHost(wsi)) {
        return AnswerText(wsi, session, HTTP_STATUS_FORBIDDEN,
                          "This page is not served under that name (vexa-host serve --host).\n");
    }
    if (path == "/metrics") {
        std::uint64_t dropped = formerDropped;
        for (const auto& [number, known] : viewers) dropped += known.viewer->DroppedFrames();
        UnitState state = unit->State();
        state.bytesReceived = log.Received();
        return AnswerText(wsi, session, HTTP_STATUS_OK, MetricsText(state, viewers.size(), dropped),
                          "text/plain; version=0.0.4; charset=utf-8");
    }
    if (path == "/session.pcapng") return AnswerRecording(wsi, session);
    const auto assets = Assets();
    const auto asset = std::ranges::find(assets, path == "/" ? "/index.html" : path, &Asset::path);
    if (asset == assets.end()) {
        return AnswerText(wsi, session, HTTP_STATUS_NOT_FOUND, "There is no such page.\n");
    }
    auto download = std::make_unique<Download>();
    if (HeaderOf(wsi, WSI_TOKEN_HTTP_IF_NONE_MATCH) == asset->tag) {
        return AnswerWith(wsi, session, HTTP_STATUS_NOT_MODIFIED, asset->type, std::move(download),
                          asset->tag);
    }
    download->bytes = asset->bytes;
    return AnswerWith(wsi, session, HTTP_STATUS_OK, asset->type, std::move(download), asset->tag);
}

int PageServer::AnswerText(lws* wsi, Session* session, unsigned status, std::string text,
                           std::string_view type) {
    auto download = std::make_unique<Download>();
    download->text = std::move(text);
    return AnswerWith(wsi, session, status, type, std::move(download));
}

// The recording holds what a viewer could have seen, so that it needs the token too.
int PageServer::AnswerRecording(lws* wsi, Session* session) {
    if (!IsSame(HeaderOf(wsi, WSI_TOKEN_HTTP_AUTHORIZATION), "Bearer " + token)) {
        return AnswerText(wsi, session, HTTP_STATUS_FORBIDDEN, "The page's token is needed.\n");
    }
    auto download = std::make_unique<Download>();
    if (!options.recording.empty()) {
        download->file = ::open(options.recording.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (download->file < 0) {
        return AnswerText(wsi, session, HTTP_STATUS_NOT_FOUND, "There is no recording.\n");
    }
    return AnswerWith(wsi, session, HTTP_STATUS_OK, "application/octet-stream",
                      std::move(download));
}

int PageServer::AnswerWith(lws* wsi, Session* session, unsigned status, std::string_view type,
                           std::unique_ptr<Download> download, std::string_view tag) {
    std::array<std::uint8_t, LWS_PRE + 2048> buffer{};
    std::uint8_t* const begin = buffer.data() + LWS_PRE;
    std::uint8_t* place = begin;
    std::uint8_t* const end = buffer.data() + buffer.size() - 1;
    const auto size = static_cast<lws_filepos_t>(
        download->file >= 0 ? ::lseek(download->file, 0, SEEK_END)
                            : static_cast<off_t>(download->Bytes().size()));
    if (download->file >= 0) ::lseek(download->file, 0, SEEK_SET);
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
    download->size = static_cast<std::size_t>(size);
    if (size == 0) return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
    delete std::exchange(session->download, download.release());
    lws_callback_on_writable(wsi);
    return 0;
}

int PageServer::SendMore(lws* wsi, Session* session) {
    Download* const download = session->download;
    if (download == nullptr) return -1;
    std::array<std::uint8_t, LWS_PRE + kChunk> buffer;
    std::uint8_t* const begin = buffer.data() + LWS_PRE;
    std::size_t count = 0;
    bool isLast = false;
    if (download->file >= 0) {
        // The recording may have grown since its size was told.
        const ssize_t got =
            ::read(download->file, begin, std::min(kChunk, download->size - download->sent));
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
    delete std::exchange(session->download, nullptr);
    return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

// --- viewers ------------------------------------------------------------------------------------

void PageServer::Begin(lws* wsi, Session* session) {
    const std::uint64_t number = nextViewer++;
    auto viewer = std::make_unique<Viewer>(number);
    session->viewer = viewer.get();
    viewers.emplace(number, Known{wsi, std::move(viewer)});
    lws_set_timer_usecs(wsi, kHelloTimeout);
}

void PageServer::End(Session* session) {
    if (session->viewer == nullptr) return;
    formerDropped += session->viewer->DroppedFrames();
    viewers.erase(session->viewer->number);
    session->viewer = nullptr;
    if (viewers.empty() && control) control->Watch(false);
}

int PageServer::Take(lws* wsi, Viewer& viewer, std::string_view piece, bool isLast) {
    if (viewer.incoming.size() + piece.size() > Viewer::kLongestRequest) return -1;
    viewer.incoming += piece;
    if (!isLast) return 0;
    const std::string text = std::exchange(viewer.incoming, {});
    auto request = ParseRequest(text);
    if (!request) {
        if (!viewer.isKnown) return -1;
        viewer.Add(Message::Text(page::AnswerText(0, request.error().message)));
        lws_callback_on_writable(wsi);
        return 0;
    }
    return Obey(wsi, viewer, std::move(*request)) ? 0 : -1;
}

// False when the viewer has to go.
bool PageServer::Obey(lws* wsi, Viewer& viewer, ViewerRequest request) {
    if (!viewer.isKnown) return Greet(wsi, viewer, request);
    if (request.filter.text.size() > kMostFilterText) request.filter.text.resize(kMostFilterText);
    const auto answer = [this, number = viewer.number, id = request.id](const std::string& problem,
                                                                        const std::string& body) {
        Post(number, page::AnswerText(id, problem, body));
    };
    const bool controls =
        request.kind == ViewerRequest::Kind::kOrder || request.kind == ViewerRequest::Kind::kUnit;
    if (controls && !options.mayControl) {
        answer("this page may look, and change nothing", "");
        return true;
    }
    switch (request.kind) {
        case ViewerRequest::Kind::kHello:
            break;
        case ViewerRequest::Kind::kFilter:
            viewer.filter = request.filter;
            viewer.follows = request.follows;
            viewer.logEnd = log.End();
            break;
        case ViewerRequest::Kind::kLog:
            SendLog(viewer, request);
            lws_callback_on_writable(wsi);
            break;
        case ViewerRequest::Kind::kUnit:
            if (control)
                control->Ask(std::move(request.unitRequest), answer);
            else
                answer("this unit is not a virtual one", "");
            break;
        case ViewerRequest::Kind::kOrder:
            request.order->answer = [answer](const std::string& problem) { answer(problem, ""); };
            unit->Add(std::move(*request.order));
            break;
    }
    return true;
}

bool PageServer::Greet(lws* wsi, Viewer& viewer, const ViewerRequest& request) {
    if (request.kind != ViewerRequest::Kind::kHello || !IsSame(request.token, token)) return false;
    const bool isFirst = std::ranges::none_of(
        viewers, [](const auto& entry) { return entry.second.viewer->isKnown; });
    viewer.isKnown = true;
    viewer.logEnd = log.End();
    const double start = SecondsOf(unit->Start().time_since_epoch());
    viewer.Add(Message::Text(HelloText({options.unitText, options.version, options.mayControl,
                                        control != nullptr, !options.recording.empty(), start})));
    if (isFirst) static_cast<void>(unit->TakeSamples());  // none from before its time
    if (control) control->Watch(true);
    stateAt = 0;
    lws_callback_on_writable(wsi);
    Schedule(tick.list, 1,
             [](lws_sorted_usec_list_t* list) { reinterpret_cast<Timer*>(list)->server->Tick(); });
    return true;
}

void PageServer::SendLog(Viewer& viewer, const ViewerRequest& request) {
    const auto start = std::chrono::duration_cast<CaptureTime>(unit->Start().time_since_epoch());
    std::uint64_t end = request.before.value_or(UINT64_MAX);
    if (request.at) {
        const auto from = std::chrono::duration<double>(*request.at);
        end =
            log.NumberAt(start + std::chrono::duration_cast<CaptureTime>(from)) + kMostLogLines / 2;
    }
    const auto found = log.Before(end, request.filter, kMostLogLines);
    AddTo(viewer.number, Message::Text(PacketsText(found, start, request.id)));
}

int PageServer::Send(lws* wsi, Viewer& viewer) {
    do {
        const auto message = viewer.Next();
        if (!message) return 0;
        const auto how = message->isText ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;
        if (lws_write(wsi, message->Bytes(), message->size, how) <
            static_cast<int>(message->size)) {
            return -1;
        }
    } while (lws_send_pipe_choked(wsi) == 0);
    if (viewer.HasMore()) lws_callback_on_writable(wsi);
    return 0;
}

// --- what viewers are sent ----------------------------------------------------------------------

// Every 1/30 s while there are viewers.
void PageServer::Tick() {
    if (viewers.empty()) return;
    const auto samples = unit->TakeSamples();
    if (!samples.empty()) {
        const auto message = Message::Samples(SamplesMessage(samples));
        for (auto& [number, known] : viewers) {
            if (known.viewer->isKnown) known.viewer->AddSamples(message);
        }
    }
    SendState();
    SendPackets();
    for (const auto& [number, known] : viewers) {
        if (known.viewer->HasMore()) lws_callback_on_writable(known.wsi);
    }
    Schedule(tick.list, kTick, tick.list.cb);
}

void PageServer::SendState() {
    const std::uint64_t current = unit->StateNumber();
    const bool isDue = lws_now_usecs() - stateAt > kStatePeriod;
    if (current == stateNumber && !isDue) return;
    stateNumber = current;
    stateAt = lws_now_usecs();
    const auto now = std::chrono::system_clock::now() - unit->Start();
    UnitState state = unit->State();
    state.bytesReceived = log.Received();
    const auto message = Message::Text(
        StateText(state, control ? control->State() : "", SecondsOf(now), viewers.size()));
    for (auto& [number, known] : viewers) {
        if (known.viewer->isKnown) AddTo(number, message);
    }
}

void PageServer::SendPackets() {
    const auto start = std::chrono::duration_cast<CaptureTime>(unit->Start().time_since_epoch());
    for (auto& [number, known] : viewers) {
        Viewer& viewer = *known.viewer;
        if (!viewer.isKnown || !viewer.follows) continue;
        const auto page = log.Since(viewer.logEnd, viewer.filter, kMostPackets);
        if (page.lines.empty()) continue;
        AddTo(number, Message::Text(PacketsText(page, start, std::nullopt)));
    }
}

// A viewer that takes no text either is dropped.
void PageServer::AddTo(std::uint64_t viewer, const std::shared_ptr<Message>& message) {
    const auto place = viewers.find(viewer);
    if (place == viewers.end()) return;
    if (!place->second.viewer->Add(message)) {
        lws_set_timeout(place->second.wsi, PENDING_TIMEOUT_KILLED_BY_PARENT, LWS_TO_KILL_ASYNC);
    }
}

// Any thread.
void PageServer::Post(std::uint64_t viewer, std::string text) {
    {
        const vexa::MutexLock lock(mutex);
        posted.push_back({viewer, std::move(text)});
    }
    lws_cancel_service(context);
}

void PageServer::SendWaiting() {
    std::vector<Posted> waiting;
    {
        const vexa::MutexLock lock(mutex);
        waiting = std::exchange(posted, {});
    }
    for (Posted& each : waiting) AddTo(each.viewer, Message::Text(each.text));
    if (hasNews.exchange(false)) {
        stateNumber = 0;
        SendState();
    }
    for (const auto& [number, known] : viewers) {
        if (known.viewer->HasMore()) lws_callback_on_writable(known.wsi);
    }
}

}  // namespace

bool IsLoopback(const std::string& address) {
    return address.starts_with("127.") || address == "::1" || address == "localhost" ||
           address == "lo";
}

Expected<Done> Serve(const ServerOptions& options, const Announcement& announce,
                     const std::function<bool()>& isEnded) {
    PageServer server(options, isEnded);
    return server.Run(announce);
}

}  // namespace vexahost::page
