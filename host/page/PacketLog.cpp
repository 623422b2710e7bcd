#include "page/PacketLog.h"

#include <algorithm>
#include <cctype>

namespace vexahost::page {

namespace {

constexpr std::size_t kMostTexts = 256;

bool IsData(PacketKind kind) {
    return kind == PacketKind::kChildData || kind == PacketKind::kDaqPacket;
}

bool Contains(const std::string& text, const std::string& sought) {
    const auto same = [](char one, char other) {
        return std::tolower(static_cast<unsigned char>(one)) == other;
    };
    return std::search(text.begin(), text.end(), sought.begin(), sought.end(), same) != text.end();
}

}  // namespace

bool LogFilter::Passes(const LoggedPacket& packet) const {
    if (errorsOnly && !packet.isError) return false;
    if (!withData && IsData(packet.kind) && !packet.isError) return false;
    if (direction && packet.direction != *direction) return false;
    if (child && packet.child != child) return false;
    return text.empty() || Contains(*packet.text, text);
}

PacketLog::PacketLog()
    : decoder([this](const DecodedPacket& packet) VEXA_REQUIRES(mutex) { Add(packet); }) {}

void PacketLog::Show(const CapturedFrame& frame) {
    if (frame.direction == Direction::kFromUnit) received += frame.bytes.size();
    const vexa::MutexLock lock(mutex);
    decoder.Add(frame);
}

void PacketLog::Add(const DecodedPacket& packet) {
    LoggedPacket logged;
    logged.time = packet.time;
    logged.direction = packet.direction;
    logged.kind = packet.kind;
    logged.child = packet.child;
    logged.size = static_cast<std::uint16_t>(std::min<std::size_t>(packet.bytes.size(), 0xFFFF));
    std::ranges::copy(packet.bytes.first(std::min(packet.bytes.size(), LoggedPacket::kHead)),
                      logged.head.begin());
    logged.isError = packet.kind == PacketKind::kBroken || !packet.checksumRight ||
                     packet.text.find(": error ") != std::string::npos;
    logged.text = IsData(packet.kind) ? Shared(packet.text)
                                      : std::make_shared<const std::string>(packet.text);
    packets.push_back(std::move(logged));
    if (packets.size() > kCapacity) {
        packets.pop_front();
        ++first;
    }
}

std::shared_ptr<const std::string> PacketLog::Shared(std::string_view text) {
    if (texts.size() >= kMostTexts) texts.clear();
    auto& shared = texts[std::string(text)];
    if (!shared) shared = std::make_shared<const std::string>(text);
    return shared;
}

std::uint64_t PacketLog::End() const {
    const vexa::MutexLock lock(mutex);
    return first + packets.size();
}

LogPage PacketLog::Between(std::uint64_t begin, std::uint64_t end, const LogFilter& filter,
                           std::size_t most) const {
    const vexa::MutexLock lock(mutex);
    LogPage page;
    end = std::min(end, first + packets.size());
    for (std::uint64_t number = end; number > std::max(begin, first); --number) {
        const LoggedPacket& packet = packets[number - 1 - first];
        if (!filter.Passes(packet)) continue;
        if (page.lines.size() < most) {
            page.lines.push_back({number - 1, packet});
        } else {
            ++page.skipped;
        }
    }
    std::ranges::reverse(page.lines);
    return page;
}

LogPage PacketLog::Before(std::uint64_t end, const LogFilter& filter, std::size_t most) const {
    const vexa::MutexLock lock(mutex);
    LogPage page;
    std::uint64_t number = std::min(end, first + packets.size());
    for (; number > first && page.lines.size() < most; --number) {
        const LoggedPacket& packet = packets[number - 1 - first];
        if (filter.Passes(packet)) page.lines.push_back({number - 1, packet});
    }
    std::ranges::reverse(page.lines);
    return page;
}

std::uint64_t PacketLog::NumberAt(CaptureTime time) const {
    const vexa::MutexLock lock(mutex);
    const auto place = std::ranges::lower_bound(packets, time, {}, &LoggedPacket::time);
    return first + static_cast<std::uint64_t>(place - packets.begin());
}

}  // namespace vexahost::page
