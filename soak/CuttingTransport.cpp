#include "CuttingTransport.h"

#include <algorithm>
#include <utility>

namespace vexa::soak {

using vexahost::Done;
using vexahost::Error;
using vexahost::Expected;

CuttingTransport::CuttingTransport(std::unique_ptr<Transport> whole, CutAt cut)
    : cable(std::move(whole)), leftToUnit(cut.toUnit), leftFromUnit(cut.fromUnit) {}

Expected<std::size_t> CuttingTransport::Read(std::span<std::uint8_t> buffer,
                                             std::chrono::milliseconds timeout) {
    if (leftFromUnit == 0) return Cut();
    auto got = cable->Read(buffer.first(std::min(buffer.size(), leftFromUnit)), timeout);
    if (got) leftFromUnit -= *got;
    return got;
}

Expected<Done> CuttingTransport::WriteAll(std::span<const std::uint8_t> bytes,
                                          std::chrono::milliseconds timeout) {
    const auto whole = bytes.first(std::min(bytes.size(), leftToUnit));
    leftToUnit -= whole.size();
    auto sent = cable->WriteAll(whole, timeout);
    if (sent && whole.size() < bytes.size()) return Cut();
    return sent;
}

Error CuttingTransport::Cut() {
    cable->Close();
    return {vexahost::ErrorKind::kLinkLost, "the cable was pulled"};
}

}  // namespace vexa::soak
