// The host kit's frame and packet readers. Stated: however the bytes are cut into pieces, the same
// packets come out; and a good initial-sync reply is found whatever came before, once it is
// awaited.
#include <algorithm>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "protocol/Replies.h"
#include "vexahost/Describe.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Result {
    std::vector<Bytes> packets;
    bool violated = false;

    bool operator==(const Result&) const = default;
};

// In pieces of `pieceSize` bytes.
Result Read(const Bytes& bytes, std::size_t pieceSize) {
    vexahost::FrameReader frames;
    vexahost::PacketReader packets;
    Result result;
    for (std::size_t at = 0; at < bytes.size(); at += pieceSize) {
        auto piece = std::span(bytes).subspan(at, std::min(pieceSize, bytes.size() - at));
        for (auto payload = frames.Next(piece); !payload.empty(); payload = frames.Next(piece)) {
            while (const auto packet = packets.Next(payload)) {
                result.packets.emplace_back(packet->bytes.begin(), packet->bytes.end());
                (void)vexahost::DescribePacket(vexahost::Direction::kFromUnit, packet->bytes);
                (void)vexahost::DescribePacket(vexahost::Direction::kToUnit, packet->bytes);
            }
        }
    }
    result.violated = frames.IsViolated() || packets.IsViolated();
    if (frames.IsViolated()) (void)frames.Violation();
    if (packets.IsViolated()) (void)packets.Violation();
    return result;
}

void CheckSync(const Bytes& before) {
    static constexpr std::uint8_t kReply[] = {0xB8, 0x1A, 0x00, 0xE9, 0x1A, 0x07, 0x55, 0xAA, 0x56,
                                              0xA9, 0x57, 0xA8, 0x58, 0xA7, 0x59, 0xA6, 0x5A, 0xA5,
                                              0x5B, 0xA4, 0x5C, 0xA3, 0x5D, 0xA2, 0x5E, 0xA1};
    vexahost::PacketReader packets;
    std::span<const std::uint8_t> rest = before;
    while (packets.Next(rest)) continue;
    packets.LoseStep();
    rest = kReply;
    bool found = false;
    while (const auto packet = packets.Next(rest)) {
        found = found || std::ranges::equal(packet->bytes, kReply);
    }
    REQUIRE(found);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t pieceSize = std::size_t{1} + input.Byte() % 64;
    const Bytes bytes = input.Bytes(size);
    REQUIRE(Read(bytes, pieceSize) == Read(bytes, bytes.size() + 1));
    CheckSync(bytes);
    return 0;
}
