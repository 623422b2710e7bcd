// The page's requests, as a viewer sends them: whatever comes is a request or is refused in words,
// and an answer about it is one JSON text. The events of a unit, taken from the same text, end in
// words or are left out.
#include <cstdint>
#include <string_view>

#include "Require.h"
#include "page/Messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vexahost::page;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto happened = HappeningOf(text)) REQUIRE(!happened->text.empty());
    const auto request = ParseRequest(text);
    if (!request) {
        REQUIRE(!request.error().message.empty());
        REQUIRE(!AnswerText(0, request.error().message).empty());
        return 0;
    }
    REQUIRE(request->kind != ViewerRequest::Kind::kOrder || request->order.has_value());
    REQUIRE(request->unitRequest.find('\n') == std::string::npos);
    REQUIRE(!AnswerText(request->id, text, request->unitRequest).empty());
    LoggedPacket packet;
    packet.text = std::make_shared<const std::string>(text);
    static_cast<void>(request->filter.Passes(packet));
    return 0;
}
