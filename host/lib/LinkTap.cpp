#include "vexahost/LinkTap.h"

#include <chrono>
#include <utility>

namespace vexahost {

namespace {

CaptureTime Now() { return std::chrono::system_clock::now().time_since_epoch(); }

class TappedTransport final : public Transport {
  public:
    TappedTransport(std::unique_ptr<Transport> link_, std::shared_ptr<LinkTap> tap_)
        : link(std::move(link_)),
          tap(std::move(tap_)),
          frames(link->UnitFraming(), [this](std::span<const std::uint8_t> frame) {
              tap->Show({Now(), Direction::kFromUnit, frame, {}});
          }) {
        tap->Show({Now(), Direction::kToUnit, {}, kCableIn});
    }
    ~TappedTransport() override {
        frames.Finish();
        tap->Show({Now(), Direction::kToUnit, {}, kCableOut});
    }

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override {
        auto count = link->Read(buffer, timeout);
        if (count && *count > 0) frames.Add(buffer.first(*count));
        return count;
    }
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override {
        // What could not be sent at once comes again, and was shown.
        if (bytes.data() != unsent.data() || bytes.size() != unsent.size()) {
            tap->Show({Now(), Direction::kToUnit, bytes, {}});
        }
        auto count = link->Write(bytes, deadline);
        unsent = count ? bytes.subspan(*count) : std::span<const std::uint8_t>{};
        return count;
    }
    Framing UnitFraming() const override { return link->UnitFraming(); }
    void Close() override { link->Close(); }

  private:
    const std::unique_ptr<Transport> link;
    const std::shared_ptr<LinkTap> tap;
    FrameCutter frames;                    // of the reading thread
    std::span<const std::uint8_t> unsent;  // of the writing thread: only compared
};

}  // namespace

TransportFactory Tapped(TransportFactory connect, std::shared_ptr<LinkTap> tap) {
    return [connect = std::move(connect), tap = std::move(tap)](
               const ConnectLimits& limits) -> Expected<std::unique_ptr<Transport>> {
        auto link = connect(limits);
        if (!link) return link;
        return std::unique_ptr<Transport>(std::make_unique<TappedTransport>(std::move(*link), tap));
    };
}

}  // namespace vexahost
