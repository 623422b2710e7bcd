#include "soak/LoadChecker.h"

#include <algorithm>
#include <array>

#include "model/Devices.h"
#include "protocol/Packet.h"

namespace vexa::soak {

namespace {

using vexahost::ChildId;

constexpr std::uint8_t kEchoMark = 0xE0;
constexpr std::size_t kEchoNumberOffset = 1;
constexpr std::size_t kEchoHeader = 5;
constexpr std::size_t kMostEcho = 245;

}  // namespace

void LoadCounts::Add(const LoadCounts& other) {
    blocks += other.blocks;
    echoes += other.echoes;
    replies += other.replies;
    bytes += other.bytes;
    gaps += other.gaps;
    missing += other.missing;
    duplicates += other.duplicates;
    wrong += other.wrong;
}

std::vector<std::uint8_t> EchoOf(ChildId child, std::uint32_t number) {
    std::vector<std::uint8_t> bytes(kEchoHeader +
                                    (number * 37 + child) % (kMostEcho - kEchoHeader + 1));
    bytes[0] = kEchoMark;
    // 24 bits and a zero: some values of the fifth byte would look like a command to the
    // controller.
    bytes[kEchoNumberOffset] = static_cast<std::uint8_t>(number);
    bytes[kEchoNumberOffset + 1] = static_cast<std::uint8_t>(number >> 8U);
    bytes[kEchoNumberOffset + 2] = static_cast<std::uint8_t>(number >> 16U);
    for (std::size_t at = kEchoHeader; at < bytes.size(); ++at) {
        bytes[at] = static_cast<std::uint8_t>(child * 31 + number * 7 + at * 13);
    }
    return bytes;
}

LoadChecker::LoadChecker(ChildId controllerId) : controller(controllerId) {
    AddChild(controller, 0, {vexa::unit::Waveform::kSine, {vexa::unit::kDefaultSeed, ""}});
}

void LoadChecker::AddChild(ChildId child, std::size_t blockSize,
                           const vexa::unit::WaveSource& wave) {
    const MutexLock lock(mutex);
    children.emplace(child, Child{.blockSize = blockSize, .wave = wave});
}

void LoadChecker::Check(std::span<const std::uint8_t> packet) {
    if (vexa::TypeClass(packet[vexa::kTypeOffset]) != vexa::kClassTunnel) return;
    const MutexLock lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (lastPacket.time_since_epoch().count() > 0) {
        longestPause = std::max(longestPause, now - lastPacket);
    }
    lastPacket = now;
    const bool isRight = packet.size() >= vexa::kTunnelHeaderSize &&
                         vexa::PacketChecksum(packet) == packet[vexa::kChecksumOffset];
    const ChildId id = isRight ? vexa::LoadLe32(packet, vexa::kTunnelIdOffset) : 0;
    const auto found = children.find(id);
    if (found == children.end()) {
        ++strays;
        return;
    }
    Child& child = found->second;
    child.counts.bytes += packet.size();
    if (packet[vexa::kSequenceOffset] != child.sequence) ++child.counts.gaps;
    child.sequence = static_cast<std::uint8_t>(packet[vexa::kSequenceOffset] + 1);

    const auto content = packet.subspan(vexa::kTunnelHeaderSize);
    if (id == controller) {
        ++child.counts.replies;
    } else if (!content.empty() && content[0] == kEchoMark) {
        CheckEcho(child, id, content);
    } else {
        CheckBlock(child, content);
    }
}

void LoadChecker::CheckBlock(Child& child, std::span<const std::uint8_t> block) const {
    ++child.counts.blocks;
    if (block.size() != child.blockSize) {
        ++child.counts.wrong;
        return;
    }
    std::vector<std::uint8_t> expected(child.blockSize);
    const auto made = [&](std::uint8_t number, std::uint32_t milliseconds) {
        vexa::unit::FillSamplePacket(expected, number, milliseconds, child.wave);
        vexa::SealPacket(expected);
    };
    // The waveform continues through the missing blocks.
    for (; child.block != block[vexa::kSequenceOffset]; ++child.block) {
        made(child.block, 0);
        ++child.counts.missing;
    }
    const std::uint32_t milliseconds = vexa::LoadLe32(block, vexa::kPayloadOffset);
    made(child.block++, milliseconds);
    if (!std::ranges::equal(block, expected) || milliseconds < child.milliseconds) {
        ++child.counts.wrong;
    }
    child.milliseconds = milliseconds;
}

void LoadChecker::CheckEcho(Child& child, ChildId id, std::span<const std::uint8_t> echo) const {
    ++child.counts.echoes;
    if (echo.size() < kEchoHeader) {
        ++child.counts.wrong;
        return;
    }
    const std::uint32_t number = vexa::LoadLe32(echo, kEchoNumberOffset);
    if (number < child.echo) {
        ++child.counts.duplicates;
        return;
    }
    child.counts.missing += number - child.echo;
    child.echo = number + 1;
    if (!std::ranges::equal(echo, EchoOf(id, number))) ++child.counts.wrong;
}

LoadCounts LoadChecker::CountsOf(ChildId child) const {
    const MutexLock lock(mutex);
    return children.at(child).counts;
}

std::chrono::milliseconds LoadChecker::LongestPause() const {
    const MutexLock lock(mutex);
    return std::chrono::round<std::chrono::milliseconds>(longestPause);
}

LoadCounts LoadChecker::Total() const {
    const MutexLock lock(mutex);
    LoadCounts total;
    for (const auto& [id, child] : children) total.Add(child.counts);
    total.wrong += strays;
    return total;
}

}  // namespace vexa::soak
