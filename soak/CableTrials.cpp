// The cable is pulled at any byte of a session, or goes in and out by itself.
#include <algorithm>
#include <thread>

#include "soak/Trial.h"

namespace vexa::soak {

using vexahost::Error;
using vexahost::Expected;

namespace {

constexpr int kPulls = 40;
constexpr int kShortPulls = 8;
constexpr int kFlaps = 6;
constexpr int kShortFlaps = 1;

// More bytes than a session has, so that some are only cut while they stream.
constexpr std::uint32_t kMostToUnit = 500;
constexpr std::uint32_t kMostFromUnit = 12000;
constexpr std::uint32_t kMostStreamingMs = 300;

// Where the cable is pulled, in bytes from the start of the connection.
struct CutAt {
    std::size_t toUnit;
    std::size_t fromUnit;
};

// A cable that is pulled in the middle of the byte stream.
class CuttingTransport final : public vexahost::Transport {
  public:
    CuttingTransport(std::unique_ptr<Transport> whole, CutAt cut);

    vexahost::Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                                         std::chrono::milliseconds timeout) override;
    vexahost::Expected<std::size_t> Write(std::span<const std::uint8_t> bytes,
                                          vexahost::Deadline deadline) override;
    [[nodiscard]] vexahost::Framing UnitFraming() const override { return cable->UnitFraming(); }
    void Close() override { cable->Close(); }

  private:
    vexahost::Error Cut();

    const std::unique_ptr<Transport> cable;
    std::size_t leftToUnit;    // the writing thread only
    std::size_t leftFromUnit;  // the reading thread only
};

CuttingTransport::CuttingTransport(std::unique_ptr<Transport> whole, CutAt cut)
    : cable(std::move(whole)), leftToUnit(cut.toUnit), leftFromUnit(cut.fromUnit) {}

Expected<std::size_t> CuttingTransport::Read(std::span<std::uint8_t> buffer,
                                             std::chrono::milliseconds timeout) {
    if (leftFromUnit == 0) return Cut();
    auto got = cable->Read(buffer.first(std::min(buffer.size(), leftFromUnit)), timeout);
    if (got) leftFromUnit -= *got;
    return got;
}

Expected<std::size_t> CuttingTransport::Write(std::span<const std::uint8_t> bytes,
                                              vexahost::Deadline deadline) {
    const auto whole = bytes.first(std::min(bytes.size(), leftToUnit));
    leftToUnit -= whole.size();
    auto sent = cable->Write(whole, deadline);
    if (sent && whole.size() < bytes.size()) return Cut();
    return sent;
}

Error CuttingTransport::Cut() {
    cable->Close();
    return {vexahost::ErrorKind::kLinkLost, "the cable was pulled"};
}

void Wait(std::uint32_t ms) { std::this_thread::sleep_for(Milliseconds{ms}); }

// Runs a session on a cable that is pulled after some byte.
bool PullOnce(SoakUnit& unit, Random& random) {
    CutAt cut{kMostToUnit, kMostFromUnit};
    if (random.Coin()) {
        cut.toUnit = random.Between(0, kMostToUnit);
    } else {
        cut.fromUnit = random.Between(0, kMostFromUnit);
    }
    const auto cutting = [&, whole = unit.Cable()](const vexahost::ConnectLimits& limits)
        -> vexahost::Expected<std::unique_ptr<vexahost::Transport>> {
        auto transport = whole(limits);
        if (!transport) return transport.error();
        return std::unique_ptr<vexahost::Transport>(
            std::make_unique<CuttingTransport>(std::move(*transport), cut));
    };
    const auto client = vexahost::Client::Connect(cutting, {}, kConnectPatience);
    if (client && Exercise(**client, {})) Wait(random.Between(0, kMostStreamingMs));
    return true;
}

// Several pulls, each immediately after the last.
bool PullAgainAndAgain(SoakUnit& unit, Random& random) {
    for (std::uint32_t pulls = random.Between(1, 4); pulls > 0; --pulls) PullOnce(unit, random);
    return true;
}

// Runs sessions, as far as possible, on a cable that goes out and in by itself.
bool Flap(SoakUnit& unit, Random& random) {
    const std::uint32_t times = random.Between(3, 6);
    const std::uint32_t inMs = random.Between(50, 900);
    const std::uint32_t outMs = random.Between(20, 700);
    unit.Ask(
        {{"request", "cable"}, {"flap", {{"inMs", inMs}, {"outMs", outMs}, {"times", times}}}});
    const auto end = std::chrono::steady_clock::now() + Milliseconds{times * (inMs + outMs)};
    while (std::chrono::steady_clock::now() < end) {
        const auto client = vexahost::Client::Connect(unit.Cable(), {}, kConnectPatience);
        if (client) Exercise(**client, {});
        if (!client) Wait(10);
    }
    unit.Ask({{"request", "cable"}, {"in", true}});
    return true;
}

Trial MakeTrial(const std::string& group, const std::string& name, bool isShort, UnitTrial onUnit) {
    return {.group = group, .name = name, .isShort = isShort, .onUnit = std::move(onUnit)};
}

}  // namespace

void AddCableTrials(std::vector<Trial>& trials) {
    for (int number = 1; number <= kPulls; ++number) {
        UnitTrial onUnit{.run = PullAgainAndAgain, .returnsAtOnce = number % 2 == 0};
        trials.push_back(MakeTrial("cable pulled", "pull/" + std::to_string(number),
                                   number <= kShortPulls, std::move(onUnit)));
    }
    for (int number = 1; number <= kFlaps; ++number) {
        trials.push_back(MakeTrial("cable flaps", "flap/" + std::to_string(number),
                                   number <= kShortFlaps, {.run = Flap}));
    }
}

}  // namespace vexa::soak
