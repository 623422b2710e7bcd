#include "page/TappedTransport.h"

#include <chrono>
#include <utility>

namespace vexahost::page {

namespace {

CaptureTime Now() {
    return std::chrono::duration_cast<CaptureTime>(
        std::chrono::system_clock::now().time_since_epoch());
}

class TappedTransport final : public Transport {
  public:
    TappedTransport(std::unique_ptr<Transport> inner_, LinkTap& tap_)
        : inner(std::move(inner_)), tap(tap_), cutter(inner->UnitFraming(), [this](auto frame) {
              tap.Show({Now(), Direction::kFromUnit, frame, {}});
          }) {
        tap.Show({Now(), Direction::kToUnit, {}, kCableIn});
    }

    ~TappedTransport() override {
        cutter.Finish();
        tap.Show({Now(), Direction::kToUnit, {}, kCableOut});
    }

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override {
        auto count = inner->Read(buffer, timeout);
        if (count && *count > 0) cutter.Add(buffer.first(*count));
        return count;
    }

    // Shown before it is sent: an answer never comes before its request.
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override {
        tap.Show({Now(), Direction::kToUnit, bytes, {}});
        return inner->Write(bytes, deadline);
    }

    [[nodiscard]] Framing UnitFraming() const override { return inner->UnitFraming(); }
    void Close() override { inner->Close(); }

  private:
    const std::unique_ptr<Transport> inner;
    LinkTap& tap;
    FrameCutter cutter;  // reading thread only
};

}  // namespace

TransportFactory Tapped(TransportFactory factory, LinkTap& tap) {
    return [factory = std::move(factory),
            &tap](const ConnectLimits& limits) -> Expected<std::unique_ptr<Transport>> {
        auto transport = factory(limits);
        if (!transport) return transport;
        return std::unique_ptr<Transport>(
            std::make_unique<TappedTransport>(std::move(*transport), tap));
    };
}

}  // namespace vexahost::page
