// Shows what passes over the link while a session goes on, and records it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "vexahost/Recording.h"
#include "vexahost/Transport.h"

namespace vexahost {

// Is shown what passes over the connections of a unit, frame by frame, and each beginning and end
// of one (kCableIn, kCableOut). Any thread.
class LinkTap {
  public:
    LinkTap() = default;
    virtual ~LinkTap() = default;
    LinkTap(const LinkTap&) = delete;
    LinkTap& operator=(const LinkTap&) = delete;

    // With the time of the call; the bytes are borrowed. What is sent is shown before it goes out,
    // so that no answer comes before its request.
    virtual void Show(const CapturedFrame& frame) = 0;
};

// Makes connections as `connect` does, and shows `tap` what passes over them.
[[nodiscard]] TransportFactory Tapped(TransportFactory connect, std::shared_ptr<LinkTap> tap);

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
