// The acquisition board: answers the initial sync, acknowledges commands, and measures from the
// sync on. All that it sends carries one sequence of numbers.
#pragma once

#include "model/PacedDevice.h"
#include "model/Scenario.h"

namespace vexa::unit {

class DaqBoard : public PacedDevice {
  public:
    DaqBoard(const DaqSettings& settings, TimePoint opened);

    void Take(std::span<const std::uint8_t> written, TimePoint now) override;

    // Behaves in this way from now on; measurements start anew.
    void Change(const DaqSettings& changed, TimePoint now);

  private:
    void AnswerSync(std::uint8_t requestSequence, TimePoint now);
    void Acknowledge(std::span<const std::uint8_t> request, TimePoint now);
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;
    void FinishAnswer(std::span<std::uint8_t> answer, TimePoint now) override;

    DaqSettings settings;
    bool synced = false;
    std::uint8_t sequence = 0;
    std::uint64_t measurements = 0;
};

}  // namespace vexa::unit
