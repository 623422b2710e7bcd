#include "page/Viewers.h"

#include <libwebsockets.h>

#include <algorithm>
#include <utility>

#include "page/Messages.h"

namespace vexahost::page {

namespace {

std::shared_ptr<Message> Make(std::span<const std::uint8_t> bytes, bool isText) {
    auto message = std::make_shared<Message>();
    message->buffer.resize(LWS_PRE + bytes.size());
    std::ranges::copy(bytes, message->buffer.begin() + LWS_PRE);
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

}  // namespace vexahost::page
