// A cable that is pulled in the middle of the byte stream.
#pragma once

#include <atomic>
#include <memory>

#include "vexahost/Transport.h"

namespace vexa::soak {

// Where the cable comes out, in bytes from the start of the connection.
struct CutAt {
    std::size_t toUnit;
    std::size_t fromUnit;
};

class CuttingTransport final : public vexahost::Transport {
  public:
    CuttingTransport(std::unique_ptr<Transport> whole, CutAt cut);

    vexahost::Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                                         std::chrono::milliseconds timeout) override;
    vexahost::Expected<vexahost::Done> WriteAll(std::span<const std::uint8_t> bytes,
                                                std::chrono::milliseconds timeout) override;
    [[nodiscard]] vexahost::Framing UnitFraming() const override { return cable->UnitFraming(); }
    void Close() override { cable->Close(); }

  private:
    vexahost::Error Cut();

    const std::unique_ptr<Transport> cable;
    std::size_t leftToUnit;    // the writing thread's
    std::size_t leftFromUnit;  // the reading thread's
};

}  // namespace vexa::soak
