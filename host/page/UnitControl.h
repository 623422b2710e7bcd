// The control socket of a virtual unit (docs/virtual-unit.md).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "foundation/Mutex.h"

namespace vexahost::page {

// Any thread.
class UnitControl {
  public:
    using Answer = std::function<void(const std::string& problem, const std::string& line)>;

    // `socket` need not be there yet. `wake` is called on the control's own thread when the unit's
    // state has changed.
    UnitControl(std::filesystem::path socket, std::function<void()> wake);
    ~UnitControl();
    UnitControl(const UnitControl&) = delete;
    UnitControl& operator=(const UnitControl&) = delete;

    // Sends one request, and calls `answer` on the control's own thread.
    void Ask(std::string request, Answer answer);

    // Asks for the unit's state every second from now on, or no longer.
    void Watch(bool wanted);

    // Something has happened at the unit: its state is asked for soon. No-op while it is not
    // watched.
    void Refresh();

    // The newest state as the unit told it; empty while there is none.
    [[nodiscard]] std::string State() const;

  private:
    struct Question {
        std::string request;
        Answer answer;
    };

    void Run();
    void UpdateState();
    // One line without its end; empty when there was no answer.
    [[nodiscard]] std::string Exchange(const std::string& request) const;

    const std::filesystem::path socket;
    const std::function<void()> wake;
    mutable vexa::Mutex mutex;
    std::condition_variable_any changed;
    std::deque<Question> questions VEXA_GUARDED_BY(mutex);
    std::string state VEXA_GUARDED_BY(mutex);
    bool isWatched VEXA_GUARDED_BY(mutex) = false;
    std::chrono::steady_clock::time_point due VEXA_GUARDED_BY(mutex){};  // the state, then
    bool isEnding VEXA_GUARDED_BY(mutex) = false;
    std::thread thread;
};

}  // namespace vexahost::page
