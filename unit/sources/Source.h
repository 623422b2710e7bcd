// A source of a device's data: something on this machine that is read in place of a simulation.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "sources/SourceSettings.h"

namespace vexa::unit {

// A child gets nothing longer from the service.
inline constexpr std::size_t kMaxSourceBlock = 245;

// Why a source cannot be used, or has ended: one line for a person.
class SourceError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What a running source has around it. Used on the source's thread.
class SourceLine {
  public:
    SourceLine() = default;
    SourceLine(const SourceLine&) = delete;
    SourceLine& operator=(const SourceLine&) = delete;
    virtual ~SourceLine() = default;

    // Passes a block, of at most kMaxSourceBlock bytes, to everyone who has the device open.
    virtual void Pass(std::span<const std::uint8_t> block) = 0;

    // Something to know, in one line.
    virtual void Tell(const std::string& text) = 0;

    // What was written to the device since the last call, oldest first.
    [[nodiscard]] virtual std::vector<std::vector<std::uint8_t>> TakeWrites() = 0;

    // The source is to end.
    [[nodiscard]] virtual bool IsEnding() = 0;

    // Waits until `descriptor` (-1: none) has one of poll's `events`, something was written, the
    // source is to end, or `timeoutMs` (-1: none) has passed. The descriptor's events that hold.
    virtual short Wait(int descriptor, short events, int timeoutMs) = 0;
};

class Source {
  public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    // Opens the device and passes on what it sends until the source is to end. Returns at the end
    // of what there is to read, too. Throws SourceError when the device cannot be opened or goes
    // away. Once, on a thread of the source's own: it may wait for a driver.
    virtual void Run(SourceLine& line) = 0;
};

// The source that `settings` describe, of a device called `device`. Throws SourceError.
[[nodiscard]] std::unique_ptr<Source> MakeSource(const SourceSettings& settings,
                                                 const std::string& device);

// Why there is no device for `settings` on this machine now, with those that there are; nothing
// when there is one. Looks at names alone, and waits for no driver. Any thread.
[[nodiscard]] std::optional<std::string> WhatIsMissing(const SourceSettings& settings);

// What to do about `error` (errno) of opening `path`, after ": ". Any thread.
[[nodiscard]] std::string WhyNotOpened(const std::string& path, int error);

}  // namespace vexa::unit
