// What a unit answered in a conversation, in a form in which two conversations can be compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "capture/Decoder.h"

struct Answer {
    vexahost::CaptureTime time{};
    std::vector<std::uint8_t> bytes;  // without what differs from one run to the next
    std::string text;                 // in words
};

/// Answers in the order of their coming, by who gave them: answers of different origin may overtake
/// each other. Not for several threads.
class AnswerLog {
  public:
    /// `withData`: what children send counts as an answer too.
    explicit AnswerLog(bool withData_) : withData(withData_) {}

    /// Notes the packet if it is an answer.
    void Take(const vexahost::DecodedPacket& packet);

    /// By origin: "controller", "unit", "DAQ" or a child's address.
    using ByOrigin = std::map<std::string, std::vector<Answer>>;
    [[nodiscard]] const ByOrigin& Answers() const { return answers; }

    [[nodiscard]] std::map<std::string, std::size_t> Counts() const;

    /// True when from each origin at least so many have come.
    [[nodiscard]] bool HasAtLeast(const std::map<std::string, std::size_t>& counts) const;

  private:
    const bool withData;
    ByOrigin answers;
};
