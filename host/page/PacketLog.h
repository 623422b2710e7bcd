// The newest packets of the link, in words.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/Mutex.h"
#include "vexahost/Decoder.h"
#include "vexahost/LinkTap.h"

namespace vexahost::page {

// One line of the log.
struct LoggedPacket {
    static constexpr std::size_t kHead = 16;

    CaptureTime time{};
    std::shared_ptr<const std::string> text;
    std::optional<ChildId> child;
    std::uint16_t size = 0;                  // of the packet, in bytes
    std::array<std::uint8_t, kHead> head{};  // its first bytes
    Direction direction = Direction::kToUnit;
    PacketKind kind = PacketKind::kOther;
    bool isError = false;  // broken, or an answer that refuses
};

// Which lines a viewer wants.
struct LogFilter {
    std::string text;  // has to be in the line, in small letters; empty: any
    std::optional<Direction> direction;
    std::optional<ChildId> child;
    bool errorsOnly = false;
    bool withData = false;  // also the blocks of devices and of the DAQ

    [[nodiscard]] bool Passes(const LoggedPacket& packet) const;
    bool operator==(const LogFilter&) const = default;
};

// Numbered lines: the first packet since the start has number 0.
struct LogPage {
    struct Line {
        std::uint64_t number;
        LoggedPacket packet;
    };
    std::vector<Line> lines;    // in their order
    std::uint64_t skipped = 0;  // lines that pass the filter, and had no room
};

// Keeps the newest 100,000 packets. Any thread.
class PacketLog final : public LinkTap {
  public:
    static constexpr std::size_t kCapacity = 100'000;

    PacketLog();

    void Show(const CapturedFrame& frame) override;

    // Bytes that units have sent over the link, frame headers included.
    [[nodiscard]] std::uint64_t Received() const { return received; }

    // Number of the next packet.
    [[nodiscard]] std::uint64_t End() const;

    // Of the lines from `begin` to before `end` those that pass: the newest `most`, and how many
    // passed beside them.
    [[nodiscard]] LogPage Between(std::uint64_t begin, std::uint64_t end, const LogFilter& filter,
                                  std::size_t most) const;

    // The last `most` lines before `end` that pass.
    [[nodiscard]] LogPage Before(std::uint64_t end, const LogFilter& filter,
                                 std::size_t most) const;

    // Number of the first packet at or after `time`.
    [[nodiscard]] std::uint64_t NumberAt(CaptureTime time) const;

  private:
    void Add(const DecodedPacket& packet) VEXA_REQUIRES(mutex);
    std::shared_ptr<const std::string> Shared(std::string_view text) VEXA_REQUIRES(mutex);

    std::atomic<std::uint64_t> received = 0;
    mutable vexa::Mutex mutex;
    CaptureDecoder decoder VEXA_GUARDED_BY(mutex);
    std::deque<LoggedPacket> packets VEXA_GUARDED_BY(mutex);
    std::uint64_t first VEXA_GUARDED_BY(mutex) = 0;  // number of the oldest
    // Most packets carry data, whose lines are few different ones.
    std::unordered_map<std::string, std::shared_ptr<const std::string>> texts
        VEXA_GUARDED_BY(mutex);
};

}  // namespace vexahost::page
