// The call log: a line for each library call that is made, for people and for tests. It has no
// addresses or times in it, so that the logs of two runs can be compared.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "model/Faults.h"
#include "model/Runtime.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

// Any thread: each line is one write to the end of the file.
class VEXA_UNIT_EXPORT CallLog {
  public:
    // Appends to the file at `path`; logs nothing when `path` is empty. Throws
    // std::runtime_error when the file cannot be opened.
    explicit CallLog(const std::string& path);

    void Write(std::string line) const;

  private:
    testkit::Descriptor file;
};

// Builds a line of the call log: Name(argument, ...) = result  # note
class VEXA_UNIT_EXPORT CallLine {
  public:
    explicit CallLine(std::string_view function);

    CallLine& Number(std::int64_t value, std::string_view label = "");
    // In quotes, with everything but printable ASCII as \xNN.
    CallLine& Text(std::string_view text);
    // Unchanged.
    CallLine& Word(std::string_view word);

    CallLine& Result(std::int64_t result);
    // After Result().
    CallLine& Note(std::string_view note);

    [[nodiscard]] std::string Line() const;

  private:
    std::string& NextArgument();

    std::string call;
    bool hasArguments = false;
    std::string tail;
};

// `text` as CallLine::Text writes it.
[[nodiscard]] VEXA_UNIT_EXPORT std::string QuotedText(std::string_view text);

struct CallOutcome {
    std::int64_t result = 0;
    std::string note = {};  // for the call log
};

// One call of a library function, subject to the faults set on it, and logged. One thread at a
// time.
class VEXA_UNIT_EXPORT LibraryCall {
  public:
    using Work = std::function<CallOutcome(const FaultEffect&)>;

    // `target`: the device or application that the call concerns, if any.
    explicit LibraryCall(Call call, std::string_view target = "");

    // The log line, to which the caller adds the arguments before Perform().
    [[nodiscard]] CallLine& Line() { return line; }

    // Counts the call and does `work`, unless a fault prevents it. Returns the work's result, or
    // `failure` when a fault makes the call fail or the process has nothing left to serve it with.
    // Waits as long as faults say, even when signals arrive.
    [[nodiscard]] std::int64_t Perform(std::int64_t failure, const Work& work);

    // Those who listen for events hear of the call only if a fault hits it.
    void KeepFromListeners() { quiet = true; }

  private:
    void Report(const CallOutcome& outcome, const FaultEffect& effect);

    const Call call;
    const std::string target;
    CallLine line;
    bool quiet = false;
};

}  // namespace vexa::unit
