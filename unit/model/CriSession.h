// One conversation with an application: a thread that answers the commands sent to it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "model/Clock.h"
#include "model/Scenario.h"
#include "vexcri.h"

namespace vexa::unit {

// Session commands.
inline constexpr std::uint32_t kActivate = 1;
inline constexpr std::uint32_t kDeactivate = 2;
inline constexpr std::uint32_t kQuery = 3;

// An application on the unit; several sessions may talk to one.
struct Application {
    std::string name;
    ApplicationSettings settings;
    std::atomic<bool> holds = false;  // drives the hardware
};

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

    // Ends the thread. Once it has returned no callback runs, except the one that called it. Once.
    void Terminate();

    [[nodiscard]] const std::string& ApplicationName() const { return application.name; }

  private:
    struct PendingAnswer {
        TimePoint due;
        std::uint32_t command;
    };

    void Run();
    // What the application does on a command, and its response.
    [[nodiscard]] std::int32_t Perform(std::uint32_t command);

    Application& application;
    const CriCallback callback;
    void* const context;
    const Witness witness;

    std::mutex mutex;  // guards pending, stopping and thread
    std::condition_variable changed;
    std::deque<PendingAnswer> pending;
    bool stopping = false;
    std::thread thread;
};

}  // namespace vexa::unit
