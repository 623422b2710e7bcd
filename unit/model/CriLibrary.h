// The behaviour of the application-session library: the unit's applications, and the sessions in
// which the service talks to them. vexcri.cpp is its C interface.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Runtime.h"
#include "model/Scenario.h"
#include "vexcri.h"

namespace vexa::unit {

// An application on the unit; several sessions may share it. Any thread.
class Application {
  public:
    Application(std::string name_, ApplicationSettings settings_);

    [[nodiscard]] const std::string& Name() const { return name; }

    // `holds` tells whether it drives the hardware now.
    [[nodiscard]] ApplicationSettings Settings() const;
    void Change(const ApplicationSettings& settings_);

    // Carries out a session command; returns the response. Where a program does it, waits for its
    // end, and for those before it: the application runs one at a time. `isCancelled` ends it.
    [[nodiscard]] std::int32_t Perform(std::uint32_t command, const std::atomic<bool>& isCancelled);

  private:
    [[nodiscard]] std::int32_t RunProgram(const std::vector<std::string>& words,
                                          const ApplicationSettings& now,
                                          const std::atomic<bool>& isCancelled);

    const std::string name;
    mutable Mutex mutex;
    std::condition_variable_any released;
    bool isRunning VEXA_GUARDED_BY(mutex) = false;  // one of its programs
    ApplicationSettings settings VEXA_GUARDED_BY(mutex);
};

// One session with an application: its thread answers the commands that are sent to it, and sends
// the application's stray answers.
class CriSession : public std::enable_shared_from_this<CriSession> {
  public:
    // Called before each callback, with the application's name, the command and the response.
    using Observer = std::function<void(const std::string&, std::uint32_t, std::int32_t)>;

    // `application` must outlive the session.
    CriSession(Application& application, CriCallback callback, void* context, Observer observer);

    // Starts the thread, which keeps the session alive while it runs. Once, before all else.
    void Start();

    // False when the application refuses the command. Any thread.
    [[nodiscard]] bool Command(std::uint32_t command);

    // Applies changed settings of the application; stray intervals start again. Any thread.
    void FollowSettings();

    // Ends the thread. Afterwards no callback runs, except the one that called this. Once.
    void Terminate();

    [[nodiscard]] const std::string& ApplicationName() const { return application.Name(); }

  private:
    struct PendingAnswer {
        TimePoint due;
        std::uint32_t command;
    };
    struct PendingStray {
        TimePoint due;
        Stray stray;
    };
    struct Answer {
        std::uint32_t command;
        std::optional<std::int32_t> response;  // nothing: the application has yet to perform it
    };

    void Run();
    void StartIntervals() VEXA_REQUIRES(mutex);
    [[nodiscard]] TimePoint NextDue() const VEXA_REQUIRES(mutex);
    // Waits until answers are due and returns them in the order in which they are sent; none when
    // the session is ending.
    [[nodiscard]] std::vector<Answer> AwaitAnswers();
    [[nodiscard]] std::vector<Answer> RemoveDueAnswers() VEXA_REQUIRES(mutex);
    // Adds the answer to `command`, with the strays around it.
    void AddAnswer(std::uint32_t command, std::vector<Answer>& into) const;

    Application& application;
    const CriCallback callback;
    void* const context;
    const Observer observer;

    Mutex mutex;
    std::condition_variable_any changed;
    std::deque<PendingAnswer> pending VEXA_GUARDED_BY(mutex);
    std::vector<PendingStray> intervals VEXA_GUARDED_BY(mutex);
    std::atomic<bool> stopping = false;  // set under the mutex, so that no wait misses it
    std::thread thread VEXA_GUARDED_BY(mutex);
};

// Any thread. Session handles are never reused.
class VEXA_UNIT_EXPORT CriLibrary {
  public:
    explicit CriLibrary(const ApplicationMap& settings);

    // Handle of a new session with the application of that name; 0 when there is no such
    // application or its `initFails` is set. Throws std::system_error when there is no thread left
    // for it.
    [[nodiscard]] std::uint32_t Init(std::string_view name, CriCallback callback, void* context,
                                     CriSession::Observer observer);

    // False when there is no such session or the application refuses the command.
    [[nodiscard]] bool Command(std::uint32_t session, std::uint32_t command);

    // False when there is no such session.
    [[nodiscard]] bool Terminate(std::uint32_t session);

    // Nothing when there is no such session.
    [[nodiscard]] std::optional<std::string> ApplicationName(std::uint32_t session) const;

    // All applications as they are now.
    [[nodiscard]] ApplicationMap Applications() const;
    // Changes the behaviour of an application, which must exist.
    void ChangeApplication(std::string_view name, const ApplicationSettings& settings);

  private:
    [[nodiscard]] std::shared_ptr<CriSession> Find(std::uint32_t session) const;

    // Never changed after construction, so that sessions may refer to its elements.
    std::map<std::string, Application, std::less<>> applications;
    mutable Mutex mutex;  // never held during a callback
    std::uint32_t lastHandle VEXA_GUARDED_BY(mutex) = 0;
    std::map<std::uint32_t, std::shared_ptr<CriSession>> sessions VEXA_GUARDED_BY(mutex);
};

}  // namespace vexa::unit
