// One conversation with an application: a thread that answers the commands sent to it, and sends
// what nobody asked for.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "model/Application.h"
#include "model/Clock.h"
#include "vexcri.h"

namespace vexa::unit {

class CriSession : public std::enable_shared_from_this<CriSession> {
  public:
    // Called before each call of the callback with the command and the response.
    using Witness = std::function<void(const std::string&, std::uint32_t, std::int32_t)>;

    // `application` must outlive the session.
    CriSession(Application& application, CriCallback callback, void* context, Witness witness);

    // Starts the thread, which keeps the session alive while it runs. Once, before all else.
    void Start();

    // False when the application does not take the command. Any thread.
    [[nodiscard]] bool Command(std::uint32_t command);

    // The application's settings have changed: intervals start anew. Any thread.
    void FollowSettings();

    // Ends the thread. Once it has returned no callback runs, except the one that called it. Once.
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
        std::int32_t response;
    };

    void Run();
    // These need the mutex held.
    void StartIntervals();
    [[nodiscard]] TimePoint NextDue() const;
    void AwaitDue(std::unique_lock<std::mutex>& lock);
    // What is due now, in the order in which it is sent.
    [[nodiscard]] std::vector<Answer> TakeDue();

    // `command` is answered, with the strays around the answer.
    void AddAnswer(std::uint32_t command, std::vector<Answer>& into);

    Application& application;
    const CriCallback callback;
    void* const context;
    const Witness witness;

    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::deque<PendingAnswer> pending;
    std::vector<PendingStray> intervals;
    bool stopping = false;
    std::thread thread;
};

}  // namespace vexa::unit
