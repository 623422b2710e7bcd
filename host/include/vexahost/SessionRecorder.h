// Records a session while it goes on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "vexahost/Recording.h"
#include "vexahost/Transport.h"

namespace vexahost {

// Any thread.
class SessionRecorder {
  public:
    // Creates the file, as PcapngWriter::Create does.
    static Expected<std::shared_ptr<SessionRecorder>> Create(const std::string& path);

    explicit SessionRecorder(PcapngWriter writer);
    ~SessionRecorder();
    SessionRecorder(const SessionRecorder&) = delete;
    SessionRecorder& operator=(const SessionRecorder&) = delete;

    // Appends a frame with the time of the call. After a failure nothing is written any more.
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

// Makes connections as `connect` does, and records what passes over them.
[[nodiscard]] TransportFactory Recorded(TransportFactory connect,
                                        std::shared_ptr<SessionRecorder> recorder);

}  // namespace vexahost
