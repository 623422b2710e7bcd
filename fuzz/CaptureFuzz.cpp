// The capture reader and the decoder behind it. Stated: no frame holds bytes from outside the
// capture, and none comes once a fault was found.
#include <vector>

#include "Require.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vexahost::PcapngReader reader(std::span(data, size));
    vexahost::CaptureTime last{};
    vexahost::CaptureDecoder decoder([](const vexahost::DecodedPacket& packet) {
        REQUIRE(!packet.text.empty());
        (void)KindName(packet.kind);
    });
    while (const auto frame = reader.Next()) {
        REQUIRE(frame->bytes.empty() || (frame->bytes.data() >= data &&
                                         frame->bytes.data() + frame->bytes.size() <= data + size));
        decoder.Add(*frame);
        last = frame->time;
    }
    decoder.Finish(last);
    if (!reader.Fault().empty()) REQUIRE(!reader.Next());
    return 0;
}
