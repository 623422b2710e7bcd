// What viewers see of the unit, and what they ask for.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Mutex.h"
#include "page/Access.h"
#include "page/Messages.h"
#include "page/PacketLog.h"
#include "page/Server.h"
#include "page/Timeline.h"
#include "page/UnitControl.h"
#include "page/Viewers.h"
#include "vexahost/SessionRecorder.h"

namespace vexahost::page {

// Event loop's thread only.
class LivePage {
  public:
    // `wake` makes the loop call SendNews; any thread calls it. All arguments must outlive the
    // page.
    LivePage(const ServerOptions& options, const Access& access, std::function<void()> wake);

    // Begins to watch the unit. kInvalidArgument when the recording cannot be made.
    Expected<Done> Start();
    // Ends that: nothing calls `wake` any more.
    void Stop();

    [[nodiscard]] bool HasViewers() const { return !viewers.IsEmpty(); }
    Viewer& Begin(lws* wsi) { return viewers.Begin(wsi); }
    void End(Viewer& viewer);

    // A piece of a request, and whether it is the last. False when the viewer has to go.
    bool Take(Viewer& viewer, std::string_view piece, bool isLast);

    // Thirty times a second while there are viewers.
    void Tick();
    // At least ten times a second.
    void Look();
    // After `wake`.
    void SendNews();

    [[nodiscard]] std::string Metrics();

  private:
    bool Obey(Viewer& viewer, ViewerRequest request);
    bool Greet(Viewer& viewer, const ViewerRequest& request);
    void SendLog(Viewer& viewer, const ViewerRequest& request);
    void SendState();
    void SendPackets();
    void SendTimeline();
    // Why the recording has stopped; empty while it goes on.
    [[nodiscard]] std::string RecordingFailure() const;
    void Post(std::uint64_t viewer, std::string text);

    const ServerOptions& options;
    const Access& access;
    const std::function<void()> wake;
    const std::shared_ptr<PacketLog> log = std::make_shared<PacketLog>();
    Timeline timeline;
    std::shared_ptr<SessionRecorder> recorder;  // null: the session is not recorded
    bool isFailureTold = false;
    Viewers viewers;
    SamplesMessage samples;
    std::uint64_t sentTimeline = 0;  // the newest change that all viewers know
    std::uint64_t stateNumber = 0;
    std::chrono::steady_clock::time_point stateAt{};
    std::string sentUnit{};  // the newest state of a virtual unit that all viewers know

    struct Posted {
        std::uint64_t viewer;
        std::string text;
    };
    vexa::Mutex mutex;
    std::vector<Posted> posted VEXA_GUARDED_BY(mutex);  // by other threads
    std::atomic<bool> hasNews = false;

    // Their threads post.
    std::unique_ptr<UnitControl> control;
    std::unique_ptr<UnitEvents> events;
    std::unique_ptr<LiveUnit> unit;
};

}  // namespace vexahost::page
