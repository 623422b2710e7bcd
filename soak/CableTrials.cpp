// The cable comes out at any byte of a session, or goes in and out by itself.
#include <thread>

#include "CuttingTransport.h"
#include "Trial.h"

namespace vexa::soak {

namespace {

constexpr int kPulls = 40;
constexpr int kShortPulls = 8;
constexpr int kFlaps = 6;
constexpr int kShortFlaps = 1;
constexpr Milliseconds kConnectPatience{3000};

// More than a session has, so that some end by themselves and are cut while they stream.
constexpr std::uint32_t kMostToUnit = 500;
constexpr std::uint32_t kMostFromUnit = 12000;
constexpr std::uint32_t kMostStreamingMs = 300;

void Wait(std::uint32_t ms) { std::this_thread::sleep_for(Milliseconds{ms}); }

// A session on a cable that is pulled behind some byte.
bool PullOnce(SoakUnit& unit, Random& random) {
    CutAt cut{kMostToUnit, kMostFromUnit};
    if (random.Coin()) {
        cut.toUnit = random.Between(0, kMostToUnit);
    } else {
        cut.fromUnit = random.Between(0, kMostFromUnit);
    }
    const auto cutting =
        [&, whole = unit.Cable()]() -> vexahost::Expected<std::unique_ptr<vexahost::Transport>> {
        auto transport = whole();
        if (!transport) return transport.Failure();
        return std::unique_ptr<vexahost::Transport>(
            std::make_unique<CuttingTransport>(std::move(*transport), cut));
    };
    const auto client = vexahost::Client::Connect(cutting, {}, kConnectPatience);
    if (client && Exercise(**client, {})) Wait(random.Between(0, kMostStreamingMs));
    return true;
}

// Pulls in a row, each at once after the one before.
bool PullAgainAndAgain(SoakUnit& unit, Random& random) {
    for (std::uint32_t pulls = random.Between(1, 4); pulls > 0; --pulls) PullOnce(unit, random);
    return true;
}

// Sessions, as far as they come, on a cable that flaps.
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
