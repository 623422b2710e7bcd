#include "vexahost/SessionRecorder.h"

#include <chrono>
#include <utility>

#include "foundation/Mutex.h"

namespace vexahost {

class SessionRecorder::Implementation {
  public:
    explicit Implementation(PcapngWriter writer_) : writer(std::move(writer_)) {}

    mutable vexa::Mutex mutex;
    PcapngWriter writer VEXA_GUARDED_BY(mutex);
    std::optional<Error> failure VEXA_GUARDED_BY(mutex);
    std::uint64_t frames VEXA_GUARDED_BY(mutex) = 0;
};

Expected<std::shared_ptr<SessionRecorder>> SessionRecorder::Create(const std::string& path) {
    auto writer = PcapngWriter::Create(path);
    if (!writer) return writer.error();
    return std::make_shared<SessionRecorder>(std::move(*writer));
}

SessionRecorder::SessionRecorder(PcapngWriter writer)
    : implementation(std::make_unique<Implementation>(std::move(writer))) {}

SessionRecorder::~SessionRecorder() = default;

void SessionRecorder::Show(const CapturedFrame& frame) {
    const vexa::MutexLock lock(implementation->mutex);
    if (implementation->failure) return;
    const auto added = implementation->writer.Add(frame);
    if (!added) {
        implementation->failure = added.error();
    } else if (!frame.bytes.empty()) {
        ++implementation->frames;
    }
}

void SessionRecorder::Add(Direction direction, std::span<const std::uint8_t> bytes,
                          const std::string& comment) {
    Show({std::chrono::system_clock::now().time_since_epoch(), direction, bytes, comment});
}

std::optional<Error> SessionRecorder::Failure() const {
    const vexa::MutexLock lock(implementation->mutex);
    return implementation->failure;
}

std::uint64_t SessionRecorder::Frames() const {
    const vexa::MutexLock lock(implementation->mutex);
    return implementation->frames;
}

}  // namespace vexahost
