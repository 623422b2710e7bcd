// The pages that look, and what waits to be sent to them. Event loop's thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "page/PacketLog.h"

struct lws;

namespace vexahost::page {

// A message that viewers share. Before its bytes there is room for what the socket's library puts
// there.
struct Message {
    static std::shared_ptr<Message> Text(std::string_view text);
    static std::shared_ptr<Message> Samples(std::span<const std::uint8_t> bytes);

    std::vector<std::uint8_t> buffer;
    std::size_t size;
    bool isText;

    [[nodiscard]] std::uint8_t* Bytes();
};

class Viewer {
  public:
    static constexpr std::size_t kMostQueued =
        1'000'000;  // bytes, beyond which samples are dropped
    static constexpr std::size_t kLongestRequest = 65536;  // bytes

    explicit Viewer(std::uint64_t number_) : number(number_) {}

    const std::uint64_t number;
    bool isKnown = false;      // has shown the token
    std::string incoming{};    // a request that has come in part
    LogFilter filter{};        // of the packets that it is sent as they come
    bool follows = true;       // it wants them
    std::uint64_t logEnd = 0;  // number of the next packet to look at

    // False when the viewer is hopelessly slow, and should be dropped.
    bool Add(std::shared_ptr<Message> message);

    // A message with samples is left out, and counted, when too much waits already; the viewer is
    // told before the next one.
    void AddSamples(const std::shared_ptr<Message>& message);

    // The next message to send; null when there is none.
    std::shared_ptr<Message> Next();

    [[nodiscard]] bool HasMore() const { return !queue.empty(); }
    [[nodiscard]] std::uint64_t DroppedFrames() const { return dropped; }

  private:
    std::deque<std::shared_ptr<Message>> queue;
    std::size_t queued = 0;  // bytes
    std::uint64_t dropped = 0;
    std::uint64_t droppedUntold = 0;
};

// All that are connected, by their numbers.
class Viewers {
  public:
    // A connection begins; it has to show the token soon.
    Viewer& Begin(lws* wsi);
    void End(Viewer& viewer);

    [[nodiscard]] bool IsEmpty() const { return viewers.empty(); }
    [[nodiscard]] std::size_t Count() const { return viewers.size(); }
    [[nodiscard]] bool HasKnown() const;
    // Of those that have left as well.
    [[nodiscard]] std::uint64_t DroppedFrames() const;

    // Calls visit(viewer) for those that have shown the token.
    template <typename Visit>
    void ForEach(Visit visit) {
        for (auto& [number, known] : viewers) {
            if (known.viewer->isKnown) visit(*known.viewer);
        }
    }

    // For one viewer, if it is still there, or for all that have shown the token. Who takes no
    // text either is dropped.
    void Add(std::uint64_t viewer, const std::shared_ptr<Message>& message);
    void AddToAll(const std::shared_ptr<Message>& message);

    // Has the library call for what waits.
    void AskToSend();
    // Sends what the connection takes. The result is that of the library's callback.
    static int Send(lws* wsi, Viewer& viewer);

  private:
    struct Connected {
        lws* wsi;
        std::unique_ptr<Viewer> viewer;
    };
    static void Add(Connected& to, const std::shared_ptr<Message>& message);

    std::map<std::uint64_t, Connected> viewers;
    std::uint64_t nextViewer = 1;
    std::uint64_t formerDropped = 0;  // of viewers that have left
};

}  // namespace vexahost::page
