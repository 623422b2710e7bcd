#include "page/LivePage.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace vexahost::page {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kStatePeriod{250};  // of the counts
constexpr std::size_t kMostPackets = 50;                // a tick
constexpr std::size_t kMostLogLines = 500;
constexpr std::size_t kMostFilterText = 200;

const auto kNobody = [](const ChannelSamples&) {};  // wants samples

double SecondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

CaptureTime StartOf(const LiveUnit& unit) {
    return std::chrono::duration_cast<CaptureTime>(unit.Start().time_since_epoch());
}

}  // namespace

LivePage::LivePage(const ServerOptions& options_, const Access& access_,
                   std::function<void()> wake_)
    : options(options_), access(access_), wake(std::move(wake_)) {}

Expected<Done> LivePage::Start() {
    auto unitOptions = options.unit;
    unitOptions.factory = Tapped(std::move(unitOptions.factory), log);
    if (!options.recording.empty()) {
        auto created = SessionRecorder::Create(options.recording);
        if (!created) return created.error();
        recorder = *created;
        unitOptions.factory = Tapped(std::move(unitOptions.factory), recorder);
    }
    const auto tell = [this] {
        if (!hasNews.exchange(true)) wake();
    };
    if (!options.controlSocket.empty()) {
        control = std::make_unique<UnitControl>(options.controlSocket, tell);
    }
    unit = std::make_unique<LiveUnit>(std::move(unitOptions), tell);
    if (control) {
        events =
            std::make_unique<UnitEvents>(options.controlSocket, [this](const std::string& line) {
                const auto happened = HappeningOf(line);
                if (!happened) return;
                const auto now = std::chrono::system_clock::now() - unit->Start();
                timeline.Add(SecondsOf(now), happened->text, happened->isProblem);
                control->Refresh();
            });
    }
    return Done{};
}

void LivePage::Stop() {
    events.reset();
    unit.reset();
    control.reset();
}

void LivePage::End(Viewer& viewer) {
    viewers.End(viewer);
    if (viewers.IsEmpty() && control) control->Watch(false);
}

bool LivePage::Take(Viewer& viewer, std::string_view piece, bool isLast) {
    if (viewer.incoming.size() + piece.size() > Viewer::kLongestRequest) return false;
    viewer.incoming += piece;
    if (!isLast) return true;
    const std::string text = std::exchange(viewer.incoming, {});
    auto request = ParseRequest(text);
    if (!request) {
        if (!viewer.isKnown) return false;
        viewers.Add(viewer.number, Message::Text(AnswerText(0, request.error().message)));
        return true;
    }
    return Obey(viewer, std::move(*request));
}

// False when the viewer has to go.
bool LivePage::Obey(Viewer& viewer, ViewerRequest request) {
    if (!viewer.isKnown) return Greet(viewer, request);
    if (request.filter.text.size() > kMostFilterText) request.filter.text.resize(kMostFilterText);
    const auto answer = [this, number = viewer.number, id = request.id](const std::string& problem,
                                                                        const std::string& body) {
        Post(number, AnswerText(id, problem, body));
    };
    const bool controls =
        request.kind == ViewerRequest::Kind::kOrder || request.kind == ViewerRequest::Kind::kUnit;
    if (controls && !options.mayControl) {
        answer("this page may look, and change nothing", "");
        return true;
    }
    switch (request.kind) {
        case ViewerRequest::Kind::kHello:
            break;
        case ViewerRequest::Kind::kFilter:
            viewer.filter = request.filter;
            viewer.follows = request.follows;
            viewer.logEnd = log->End();
            break;
        case ViewerRequest::Kind::kLog:
            SendLog(viewer, request);
            break;
        case ViewerRequest::Kind::kUnit:
            if (control)
                control->Ask(std::move(request.unitRequest), answer);
            else
                answer("this unit is not a virtual one", "");
            break;
        case ViewerRequest::Kind::kOrder:
            request.order->answer = [answer](const std::string& problem) { answer(problem, ""); };
            unit->Add(std::move(*request.order));
            break;
    }
    return true;
}

bool LivePage::Greet(Viewer& viewer, const ViewerRequest& request) {
    if (request.kind != ViewerRequest::Kind::kHello || !access.IsToken(request.token)) return false;
    const bool isFirst = !viewers.HasKnown();
    SendTimeline();
    viewer.isKnown = true;
    viewer.logEnd = log->End();
    const double start = SecondsOf(unit->Start().time_since_epoch());
    viewer.Add(Message::Text(HelloText({options.unitText, options.version, options.mayControl,
                                        control != nullptr, !options.recording.empty(), start})));
    std::uint64_t none = 0;
    if (control) viewer.Add(Message::Text(TimelineText(timeline.Since(none))));
    if (isFirst) unit->Collect(kNobody);  // none from before its time
    if (control) control->Watch(true);
    stateAt = {};
    sentUnit.clear();
    return true;
}

void LivePage::SendLog(Viewer& viewer, const ViewerRequest& request) {
    const CaptureTime start = StartOf(*unit);
    std::uint64_t end = request.before.value_or(UINT64_MAX);
    if (request.at) {
        const auto from = std::chrono::duration<double>(*request.at);
        end = log->NumberAt(start + std::chrono::duration_cast<CaptureTime>(from)) +
              kMostLogLines / 2;
    }
    const auto found = log->Before(end, request.filter, kMostLogLines);
    viewers.Add(viewer.number, Message::Text(PacketsText(found, start, request.id)));
}

void LivePage::Tick() {
    samples.Clear();
    unit->Collect([this](const ChannelSamples& piece) { samples.Add(piece); });
    if (!samples.IsEmpty()) {
        const auto message = Message::Samples(samples.Bytes());
        viewers.ForEach([&](Viewer& viewer) { viewer.AddSamples(message); });
    }
    SendState();
    SendPackets();
    SendTimeline();
    viewers.AskToSend();
}

void LivePage::SendState() {
    const std::uint64_t current = unit->StateNumber();
    const bool isDue = Clock::now() - stateAt > kStatePeriod;
    if (current == stateNumber && !isDue) return;
    stateNumber = current;
    stateAt = Clock::now();
    const auto now = std::chrono::system_clock::now() - unit->Start();
    UnitState state = unit->State();
    state.bytesReceived = log->Received();
    std::string attached = control ? control->State() : "";
    const bool isNew = std::exchange(sentUnit, attached) != attached;
    if (!isNew) attached.clear();
    viewers.AddToAll(Message::Text(
        StateText(state, attached, SecondsOf(now), viewers.Count(), RecordingFailure())));
}

void LivePage::SendPackets() {
    // Viewers that want the same lines share their message.
    struct Made {
        LogFilter filter;
        std::uint64_t begin;
        std::shared_ptr<Message> message;
    };
    std::vector<Made> made;
    const CaptureTime start = StartOf(*unit);
    const std::uint64_t end = log->End();
    viewers.ForEach([&](Viewer& viewer) {
        if (!viewer.follows || viewer.logEnd == end) return;
        const std::uint64_t begin = std::exchange(viewer.logEnd, end);
        auto same = std::ranges::find_if(made, [&](const Made& each) {
            return each.begin == begin && each.filter == viewer.filter;
        });
        if (same == made.end()) {
            const auto found = log->Between(begin, end, viewer.filter, kMostPackets);
            const auto message = found.lines.empty()
                                     ? nullptr
                                     : Message::Text(PacketsText(found, start, std::nullopt));
            same = made.insert(made.end(), {viewer.filter, begin, message});
        }
        if (same->message) viewers.Add(viewer.number, same->message);
    });
}

void LivePage::SendTimeline() {
    const auto entries = timeline.Since(sentTimeline);
    if (!entries.empty()) viewers.AddToAll(Message::Text(TimelineText(entries)));
}

void LivePage::Look() {
    if (viewers.IsEmpty()) unit->Collect(kNobody);
    if (isFailureTold || RecordingFailure().empty()) return;
    isFailureTold = true;
    options.warn("the recording has stopped: " + RecordingFailure());
}

std::string LivePage::RecordingFailure() const {
    const auto failure = recorder ? recorder->Failure() : std::nullopt;
    return failure ? failure->message : "";
}

// Any thread.
void LivePage::Post(std::uint64_t viewer, std::string text) {
    {
        const vexa::MutexLock lock(mutex);
        posted.push_back({viewer, std::move(text)});
    }
    wake();
}

void LivePage::SendNews() {
    std::vector<Posted> waiting;
    {
        const vexa::MutexLock lock(mutex);
        waiting = std::exchange(posted, {});
    }
    for (Posted& each : waiting) viewers.Add(each.viewer, Message::Text(each.text));
    if (hasNews.exchange(false)) {
        stateNumber = 0;
        SendState();
    }
    viewers.AskToSend();
}

std::string LivePage::Metrics() {
    UnitState state = unit->State();
    state.bytesReceived = log->Received();
    return MetricsText(state, viewers.Count(), viewers.DroppedFrames());
}

}  // namespace vexahost::page
