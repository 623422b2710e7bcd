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

void SessionRecorder::Add(Direction direction, std::span<const std::uint8_t> bytes,
                          const std::string& comment) {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    const vexa::MutexLock lock(implementation->mutex);
    if (implementation->failure) return;
    const auto added = implementation->writer.Add({time, direction, bytes, comment});
    if (!added) {
        implementation->failure = added.error();
    } else if (!bytes.empty()) {
        ++implementation->frames;
    }
}

std::optional<Error> SessionRecorder::Failure() const {
    const vexa::MutexLock lock(implementation->mutex);
    return implementation->failure;
}

std::uint64_t SessionRecorder::Frames() const {
    const vexa::MutexLock lock(implementation->mutex);
    return implementation->frames;
}

namespace {

class RecordedTransport final : public Transport {
  public:
    RecordedTransport(std::unique_ptr<Transport> link_, std::shared_ptr<SessionRecorder> recorder_)
        : link(std::move(link_)),
          recorder(std::move(recorder_)),
          frames(link->UnitFraming(), [this](std::span<const std::uint8_t> frame) {
              recorder->Add(Direction::kFromUnit, frame);
          }) {
        recorder->Add(Direction::kToUnit, {}, kCableIn);
    }
    ~RecordedTransport() override {
        frames.Finish();
        recorder->Add(Direction::kToUnit, {}, kCableOut);
    }

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override {
        auto count = link->Read(buffer, timeout);
        if (count && *count > 0) frames.Add(buffer.first(*count));
        return count;
    }
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override {
        // Before it is sent: the answer must not stand before it. What could not be sent at once
        // comes again.
        if (bytes.data() != unsent.data() || bytes.size() != unsent.size()) {
            recorder->Add(Direction::kToUnit, bytes);
        }
        auto count = link->Write(bytes, deadline);
        unsent = count ? bytes.subspan(*count) : std::span<const std::uint8_t>{};
        return count;
    }
    Framing UnitFraming() const override { return link->UnitFraming(); }
    void Close() override { link->Close(); }

  private:
    const std::unique_ptr<Transport> link;
    const std::shared_ptr<SessionRecorder> recorder;
    FrameCutter frames;                    // of the reading thread
    std::span<const std::uint8_t> unsent;  // of the writing thread: only compared
};

}  // namespace

TransportFactory Recorded(TransportFactory connect, std::shared_ptr<SessionRecorder> recorder) {
    return [connect = std::move(connect), recorder = std::move(recorder)](
               const ConnectLimits& limits) -> Expected<std::unique_ptr<Transport>> {
        auto link = connect(limits);
        if (!link) return link;
        return std::unique_ptr<Transport>(
            std::make_unique<RecordedTransport>(std::move(*link), recorder));
    };
}

}  // namespace vexahost
