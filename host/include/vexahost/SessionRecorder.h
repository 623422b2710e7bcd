// Records what passes over the link while a session goes on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "vexahost/LinkTap.h"
#include "vexahost/Recording.h"

namespace vexahost {

// Writes what it is shown to a file. Any thread.
class SessionRecorder final : public LinkTap {
  public:
    // Creates the file, as PcapngWriter::Create does.
    static Expected<std::shared_ptr<SessionRecorder>> Create(const std::string& path);

    explicit SessionRecorder(PcapngWriter writer);
    ~SessionRecorder() override;

    // Appends the frame. After a failure nothing is written any more.
    void Show(const CapturedFrame& frame) override;

    // Appends a frame, or the event that `comment` names, with the time of the call.
    void Add(Direction direction, std::span<const std::uint8_t> bytes,
             const std::string& comment = "");

    // The error of the first write that has failed.
    [[nodiscard]] std::optional<Error> Failure() const;

    // Frames in the recording.
    [[nodiscard]] std::uint64_t Frames() const;

  private:
    class Implementation;
    const std::unique_ptr<Implementation> implementation;
};

}  // namespace vexahost
