#include "run/Playback.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "model/UnitSocket.h"

namespace vexa::unit {

namespace {

using testkit::Descriptor;
using Time = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr Time::time_point kNoEnd = Time::time_point::max();

int PollTimeout(Time::time_point end) {
    if (end == kNoEnd) return -1;
    const auto left = std::chrono::ceil<milliseconds>(end - Time::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

// The connection to one host at a time.
class HostConnection {
  public:
    explicit HostConnection(const Descriptor& listener_) : listener(listener_) {}

    [[nodiscard]] bool IsConnected() const { return bool(host); }
    [[nodiscard]] std::vector<std::uint8_t>& Received() { return received; }

    // Waits for a host.
    void Accept() {
        while (!host) {
            std::array<pollfd, 1> entry{WatchedListener()};
            ::poll(entry.data(), entry.size(), PollTimeout(ListeningAgain()));
            if (entry[0].revents != 0) host = AcceptOne();
        }
        received.clear();
    }

    void Disconnect() { host.Close(); }

    // Receives until `enough` bytes are there, the host has left, or `end`.
    void Receive(std::size_t enough, Time::time_point end) {
        while (host && received.size() < enough) {
            if (!ReceiveSome(POLLIN, end)) return;
        }
    }

    // Sends a frame, and receives what the host sends meanwhile.
    void Send(std::span<const std::uint8_t> bytes) {
        while (host && !bytes.empty()) {
            (void)ReceiveSome(POLLIN | POLLOUT, kNoEnd);
            const auto went =
                ::send(host.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (went > 0) bytes = bytes.subspan(static_cast<std::size_t>(went));
            if (went < 0 && errno != EAGAIN && errno != EINTR) host.Close();
        }
    }

  private:
    // Waits for `events` or `end`; false at the end.
    bool ReceiveSome(int events, Time::time_point end) {
        std::array<pollfd, 2> entries{
            {{host.Get(), static_cast<short>(events), 0}, WatchedListener()}};
        const auto until = std::min(end, ListeningAgain());
        if (::poll(entries.data(), entries.size(), PollTimeout(until)) == 0) return until != end;
        if (entries[1].revents != 0) refused = RefuseHost(AcceptOne());
        if ((entries[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) return true;
        std::array<std::uint8_t, 65536> chunk;
        const auto got = ::recv(host.Get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (got > 0) received.insert(received.end(), chunk.begin(), chunk.begin() + got);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) host.Close();
        return true;
    }

    // Nobody, for a while, when there is no descriptor for who connects: the listener stays
    // readable.
    [[nodiscard]] Descriptor AcceptOne() {
        Descriptor accepted(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!accepted && HasNoDescriptor(errno)) {
            listenAgain = Time::now() + milliseconds(kRetryAcceptMs);
        }
        return accepted;
    }
    [[nodiscard]] Time::time_point ListeningAgain() const {
        return Time::now() < listenAgain ? listenAgain : kNoEnd;
    }
    [[nodiscard]] pollfd WatchedListener() const {
        return {ListeningAgain() == kNoEnd ? listener.Get() : -1, POLLIN, 0};
    }

    const Descriptor& listener;
    Descriptor host;
    Descriptor refused;
    Time::time_point listenAgain;
    std::vector<std::uint8_t> received;  // and not compared yet
};

class Player {
  public:
    Player(const Descriptor& listener, const PlaybackOptions& options_)
        : host(listener), options(options_) {}

    PlaybackResult Play(const std::vector<PlayedRecord>& records) {
        for (const auto& record : records) {
            ++number;
            Perform(record);
        }
        host.Receive(SIZE_MAX, kNoEnd);  // until it leaves
        return result;
    }

  private:
    void Perform(const PlayedRecord& record) {
        if (record.kind == PlayedRecord::Kind::kCableIn) {
            if (host.IsConnected()) return;
            hasLeft = false;
        }
        if (!host.IsConnected() && !hasLeft && record.kind != PlayedRecord::Kind::kCableOut) {
            host.Accept();
            start = Time::now() - record.time;
        }
        switch (record.kind) {
            case PlayedRecord::Kind::kCableIn:
                return;
            case PlayedRecord::Kind::kCableOut:
                // In most recordings it was the host that left.
                host.Receive(SIZE_MAX, Time::now() + options.patience);
                host.Disconnect();
                return;
            case PlayedRecord::Kind::kFrame:
                return SendFrame(record);
            case PlayedRecord::Kind::kRequest:
                return AwaitRequest(record);
        }
    }

    void SendFrame(const PlayedRecord& record) {
        if (options.atPace) host.Receive(SIZE_MAX, start + record.time);
        host.Send(record.bytes);
        if (host.IsConnected()) {
            ++result.frames;
        } else {
            NoteLeaving();
        }
    }

    void AwaitRequest(const PlayedRecord& record) {
        const auto& wanted = record.bytes;
        host.Receive(wanted.size(), Time::now() + options.patience);
        auto& received = host.Received();
        if (received.size() < wanted.size()) {
            if (!host.IsConnected()) return NoteLeaving();
            Note("the host has sent " + std::to_string(received.size()) + " of " +
                 std::to_string(wanted.size()) + " bytes");
        } else if (const auto [at, other] =
                       std::mismatch(wanted.begin(), wanted.end(), received.begin());
                   at != wanted.end()) {
            Note("byte " + std::to_string(at - wanted.begin()) + " from the host is " +
                 std::to_string(*other) + ", not " + std::to_string(*at));
        } else {
            ++result.requests;
        }
        const auto used = std::min(received.size(), wanted.size());
        received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(used));
        // A host that is slower than the recorded one moves all that follows.
        start = std::max(start, Time::now() - record.time);
    }

    void NoteLeaving() {
        if (!hasLeft) Note("the host has left");
        hasLeft = true;
    }

    void Note(const std::string& what) {
        ++result.differences;
        if (!result.firstDifference.empty()) return;
        result.firstDifference = "record " + std::to_string(number) + ": " + what;
    }

    HostConnection host;
    const PlaybackOptions& options;
    PlaybackResult result;
    std::size_t number = 0;
    bool hasLeft = false;    // before its records were over
    Time::time_point start;  // when a record of the time 0 would have been played
};

}  // namespace

PlaybackResult PlayRecords(const std::vector<PlayedRecord>& records, const Descriptor& listener,
                           const PlaybackOptions& options) {
    return Player(listener, options).Play(records);
}

}  // namespace vexa::unit
