#include "sources/Recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <span>

#include "protocol/Commands.h"
#include "protocol/FrameHeader.h"
#include "protocol/Packet.h"
#include "sources/Source.h"

namespace vexa::unit {

namespace {

using Bytes = std::span<const std::uint8_t>;

// The parts of the file format that hold a recording; see the host kit's writer of it.
constexpr std::uint32_t kSection = 0x0A0D0D0A;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kPacket = 6;
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint32_t kMaxRecord = 1U << 24U;
constexpr std::size_t kRecordHead = 8;     // type and length; the length is there again at the end
constexpr std::size_t kPacketHead = 20;    // of the body, up to the data
constexpr std::size_t kInterfaceHead = 8;  // likewise, up to the options
constexpr std::uint32_t kLinkType = 147;   // of recordings of the link
constexpr std::uint16_t kResolutionOption = 9;
constexpr std::uint16_t kFlagsOption = 2;
constexpr std::uint32_t kInbound = 1;  // flags: from the unit

std::size_t Padded(std::size_t size) { return (size + 3) & ~std::size_t{3}; }

// The value of an option; empty when there is none.
Bytes OptionIn(Bytes options, std::uint16_t wanted) {
    while (options.size() >= 4) {
        const std::uint32_t head = LoadLe32(options, 0);
        const std::size_t size = head >> 16U;
        if (4 + size > options.size()) return {};
        if ((head & 0xFFFFU) == wanted) return options.subspan(4, size);
        options = options.subspan(std::min(4 + Padded(size), options.size()));
    }
    return {};
}

// The unit of the time stamps, in ns, by its code: a power of 10, or of 2 with the top bit set.
double TickOf(std::uint8_t resolution) {
    constexpr unsigned kBinary = 0x80;
    const bool isBinary = (resolution & kBinary) != 0;
    return 1e9 / std::pow(isBinary ? 2 : 10, resolution & ~kBinary);
}

}  // namespace

RecordedBlocks::RecordedBlocks(const std::string& path_, std::string child_)
    : path(path_), child(std::move(child_)), file(path, std::ios::binary) {
    if (!file) throw SourceError(WhyNotOpened(path, errno));
    std::array<char, 12> start{};
    file.read(start.data(), start.size());
    const Bytes bytes(reinterpret_cast<const std::uint8_t*>(start.data()), start.size());
    if (!file || LoadLe32(bytes, 0) != kSection || LoadLe32(bytes, 8) != kByteOrder) {
        throw SourceError(path + " is no recording of a session (vexa-host record)");
    }
    file.seekg(0);
}

std::optional<RecordedBlocks::Block> RecordedBlocks::Next() {
    while (blocks.empty()) {
        if (!ReadRecord()) return std::nullopt;
    }
    Block next = std::move(blocks.back());
    blocks.pop_back();
    return next;
}

std::string RecordedBlocks::Names() const {
    std::string text;
    for (const auto& [id, name] : names) {
        if (name != kControllerName) text += (text.empty() ? "" : ", ") + name;
    }
    return text.empty() ? "none" : text;
}

bool RecordedBlocks::ReadRecord() {
    std::array<std::uint8_t, kRecordHead> head{};
    file.read(reinterpret_cast<char*>(head.data()), head.size());
    if (!file) return false;
    const std::uint32_t size = LoadLe32(head, 4);
    if (size < kRecordHead + 4 || size > kMaxRecord) throw SourceError(path + " is damaged");
    std::vector<std::uint8_t> record(size - kRecordHead);
    file.read(reinterpret_cast<char*>(record.data()), static_cast<std::streamsize>(record.size()));
    if (!file) return false;  // it was cut off
    const Bytes body = Bytes(record).first(record.size() - 4);
    const std::uint32_t type = LoadLe32(head, 0);
    if (type == kInterface && body.size() >= kInterfaceHead) {
        if ((LoadLe32(body, 0) & 0xFFFFU) != kLinkType) {
            throw SourceError(path + " is a capture of something else than a session's link");
        }
        const Bytes resolution = OptionIn(body.subspan(kInterfaceHead), kResolutionOption);
        tick = resolution.empty() ? 1e3 : TickOf(resolution[0]);
    }
    if (type != kPacket || body.size() < kPacketHead) return true;
    const std::size_t captured = LoadLe32(body, 12);
    // First without the padding, which may not be counted where a size has 32 bits.
    if (captured > body.size() - kPacketHead || kPacketHead + Padded(captured) > body.size()) {
        throw SourceError(path + " is damaged");
    }
    const Bytes flags = OptionIn(body.subspan(kPacketHead + Padded(captured)), kFlagsOption);
    const std::uint64_t ticks =
        std::uint64_t{LoadLe32(body, 4)} << 32U | std::uint64_t{LoadLe32(body, 8)};
    const bool inbound = flags.size() == 4 && (LoadLe32(flags, 0) & 3U) == kInbound;
    const Bytes data = body.subspan(kPacketHead, captured);
    AddFrame(std::chrono::nanoseconds(static_cast<std::int64_t>(static_cast<double>(ticks) * tick)),
             {data.begin(), data.end()}, !inbound);
    return true;
}

template <typename Visit>
void RecordedBlocks::EachPacket(std::vector<std::uint8_t>& stream, Visit visit) {
    std::size_t at = 0;
    while (stream.size() - at >= kPacketHeaderSize) {
        const std::size_t size = stream[at + kLengthOffset];
        if (size < kPacketHeaderSize) {
            ++at;  // not a packet: looks for one at the next byte
            continue;
        }
        if (stream.size() - at < size) break;
        visit(Bytes(stream).subspan(at, size));
        at += size;
    }
    stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(at));
}

void RecordedBlocks::AddFrame(std::chrono::nanoseconds time, std::vector<std::uint8_t> bytes,
                              bool isToUnit) {
    if (bytes.empty()) {  // the cable
        toUnit.clear();
        fromUnit.clear();
        return;
    }
    const auto isTunnel = [](Bytes packet) {
        return TypeClass(packet[kTypeOffset]) == kClassTunnel && packet.size() >= kTunnelHeaderSize;
    };
    if (isToUnit) {
        toUnit.insert(toUnit.end(), bytes.begin(), bytes.end());
        EachPacket(toUnit, [&](Bytes packet) {
            if (!isTunnel(packet)) return;
            const Bytes inner = packet.subspan(kTunnelHeaderSize);
            if (inner.size() <= kCommandNameOffset ||
                inner[kCommandOffset] != static_cast<std::uint8_t>(ControllerCommand::kOpenChild)) {
                return;
            }
            const Bytes name = inner.subspan(kCommandNameOffset);
            const auto end = std::ranges::find(name, std::uint8_t{0});
            names[LoadLe32(inner, kCommandChildIdOffset)] = std::string(name.begin(), end);
        });
        return;
    }
    if (bytes.size() < kFrameHeaderSize) return;
    fromUnit.insert(fromUnit.end(), bytes.begin() + kFrameHeaderSize, bytes.end());
    EachPacket(fromUnit, [&](Bytes packet) {
        if (!isTunnel(packet)) return;
        const auto opened = names.find(LoadLe32(packet, kTunnelIdOffset));
        const Bytes block = packet.subspan(kTunnelHeaderSize);
        if (opened == names.end() || opened->second != child || block.empty()) return;
        blocks.insert(blocks.begin(), {time, {block.begin(), block.end()}});
    });
}

}  // namespace vexa::unit
