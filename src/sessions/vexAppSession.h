// One conversation with one application on the unit ("DAQ", "SPLASH" or "FGEN"): numbered commands,
// one answer each. Nothing here waits for an answer; the main loop polls each request:
//
//   idle --Request--> waiting --Poll--> sent --Poll, once answered--> done
//   done --Consume, or Poll after Release--> idle
//
// Main thread only, except Callback, which runs on the session library's thread. A session must not
// move between Init and Terminate: the library knows its address.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace vexa {

// The applications define what each command does.
enum class SessionCommand : std::uint32_t {
    kActivate = 1,
    kDeactivate = 2,
    kQuery = 3,   // answered by 1 when the application has the hardware; -1: no answer
    kNotify = 4,  // tells "FGEN" that the host has taken the DAQ over
};

// The last of kActivate and kDeactivate that was requested.
enum class SessionHolder : std::uint32_t { kNobody = 0, kActivated = 1, kDeactivated = 2 };

enum class SessionError : std::uint32_t { kNone = 0, kInitFailed = 1, kCommandFailed = 2 };

inline constexpr std::int32_t kNoSessionResponse = -1;

class vexAppSession {
  public:
    vexAppSession() = default;
    vexAppSession(const vexAppSession&) = delete;
    vexAppSession& operator=(const vexAppSession&) = delete;

    // Clears the record and opens the conversation with the application `name`, of 1 to 29
    // characters. A failure is traced and leaves a session that refuses every request.
    void Init(const char* name);

    // Ends the conversation, if there is one.
    void Terminate();

    // Has `command` sent at the next Poll; `argument` goes to the library unchanged (the callers
    // give a time in milliseconds). False, and nothing changes, unless the session is idle and was
    // initialised.
    bool Request(SessionCommand command, std::uint32_t argument);

    // Advances the request by one state.
    void Poll() {
        if (!IsIdle()) Advance();  // called for each packet, and hardly ever busy
    }

    [[nodiscard]] bool IsIdle() const { return requestState == RequestState::kIdle; }
    [[nodiscard]] bool IsBusy() const;
    [[nodiscard]] bool IsDone() const { return requestState > RequestState::kSent; }

    // The answer to the current request, when done; kNoSessionResponse when it could not be sent.
    [[nodiscard]] std::int32_t Response() const { return response; }

    // Ends a request that is done.
    void Consume();

    // The caller no longer needs the current result: Poll consumes it once it is there.
    void Release() { released = true; }

    [[nodiscard]] SessionHolder Holder() const { return holder; }
    void SetHolder(SessionHolder state) { holder = state; }
    [[nodiscard]] bool HasError() const { return error != SessionError::kNone; }

  private:
    enum class RequestState : std::uint32_t { kIdle = 0, kWaiting = 1, kSent = 50, kDone = 100 };
    // The one warning that a session ever prints.
    enum class Warning : std::uint32_t { kNone = 0, kUnexpected = 10, kMismatch = 20 };

    static void Callback(void* session, std::uint32_t command, std::int32_t response) noexcept;
    void ReceiveAnswer(std::uint32_t answeredCommand, std::int32_t answer);
    bool WarnOnce(Warning warning);
    void Advance();
    void Send();

    // The atomic fields are shared with the library's thread.
    RequestState requestState = RequestState::kIdle;
    std::atomic<std::uint32_t> command{0};
    std::uint32_t argument = 0;
    std::atomic<std::int32_t> response{0};
    SessionHolder holder = SessionHolder::kNobody;
    SessionError error = SessionError::kNone;
    std::atomic<Warning> warned{Warning::kNone};
    std::uint32_t handle = 0;
    std::atomic<bool> inFlight{false};
    std::atomic<bool> answered{false};
    bool released = false;
    std::array<char, 30> name{};
};

// The three conversations, always driven in this order. Main thread only.
struct AppSessions {
    vexAppSession daq;
    vexAppSession splash;
    vexAppSession fgen;

    void Init();
    void Poll();
    void Terminate();
};

}  // namespace vexa
