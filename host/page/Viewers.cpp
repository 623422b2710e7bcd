#include "page/Viewers.h"

#include <libwebsockets.h>

#include <algorithm>
#include <utility>

#include "page/Messages.h"

namespace vexahost::page {

namespace {

constexpr lws_usec_t kHelloTimeout = 5 * LWS_US_PER_SEC;  // for the token

std::shared_ptr<Message> Make(std::span<const std::uint8_t> bytes, bool isText) {
    auto message = std::make_shared<Message>();
    message->buffer.reserve(LWS_PRE + bytes.size());
    message->buffer.resize(LWS_PRE);
    message->buffer.insert(message->buffer.end(), bytes.begin(), bytes.end());
    message->size = bytes.size();
    message->isText = isText;
    return message;
}

}  // namespace

std::shared_ptr<Message> Message::Text(std::string_view text) {
    return Make({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, true);
}

std::shared_ptr<Message> Message::Samples(std::span<const std::uint8_t> bytes) {
    return Make(bytes, false);
}

std::uint8_t* Message::Bytes() { return buffer.data() + LWS_PRE; }

bool Viewer::Add(std::shared_ptr<Message> message) {
    queued += message->size;
    queue.push_back(std::move(message));
    return queued <= 2 * kMostQueued;
}

void Viewer::AddSamples(const std::shared_ptr<Message>& message) {
    if (queued + message->size > kMostQueued) {
        ++dropped;
        ++droppedUntold;
        return;
    }
    if (droppedUntold > 0) {
        Add(Message::Text(DroppedText(std::exchange(droppedUntold, 0))));
    }
    Add(message);
}

std::shared_ptr<Message> Viewer::Next() {
    if (queue.empty()) return nullptr;
    auto message = std::move(queue.front());
    queue.pop_front();
    queued -= message->size;
    return message;
}

Viewer& Viewers::Begin(lws* wsi) {
    const std::uint64_t number = nextViewer++;
    auto viewer = std::make_unique<Viewer>(number);
    Viewer& begun = *viewer;
    viewers.emplace(number, Connected{wsi, std::move(viewer)});
    lws_set_timer_usecs(wsi, kHelloTimeout);
    return begun;
}

void Viewers::End(Viewer& viewer) {
    formerDropped += viewer.DroppedFrames();
    viewers.erase(viewer.number);
}

bool Viewers::HasKnown() const {
    return std::ranges::any_of(viewers,
                               [](const auto& entry) { return entry.second.viewer->isKnown; });
}

std::uint64_t Viewers::DroppedFrames() const {
    std::uint64_t sum = formerDropped;
    for (const auto& [number, known] : viewers) sum += known.viewer->DroppedFrames();
    return sum;
}

void Viewers::Add(Connected& to, const std::shared_ptr<Message>& message) {
    if (to.viewer->Add(message)) return;
    lws_set_timeout(to.wsi, PENDING_TIMEOUT_KILLED_BY_PARENT, LWS_TO_KILL_ASYNC);
}

void Viewers::Add(std::uint64_t viewer, const std::shared_ptr<Message>& message) {
    const auto place = viewers.find(viewer);
    if (place != viewers.end()) Add(place->second, message);
}

void Viewers::AddToAll(const std::shared_ptr<Message>& message) {
    for (auto& [number, known] : viewers) {
        if (known.viewer->isKnown) Add(known, message);
    }
}

void Viewers::AskToSend() {
    for (const auto& [number, known] : viewers) {
        if (known.viewer->HasMore()) lws_callback_on_writable(known.wsi);
    }
}

int Viewers::Send(lws* wsi, Viewer& viewer) {
    while (const auto message = viewer.Next()) {
        const auto how = message->isText ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;
        if (lws_write(wsi, message->Bytes(), message->size, how) <
            static_cast<int>(message->size)) {
            return -1;
        }
        if (viewer.HasMore() && lws_send_pipe_choked(wsi) != 0) break;
    }
    if (viewer.HasMore()) lws_callback_on_writable(wsi);
    return 0;
}

}  // namespace vexahost::page
