// One conversation with one application on the unit ("DAQ", "SPLASH" or "FGEN"): numbered commands,
// one answer each. A request is never waited for; the main loop polls it along:
//
//   idle -> waiting -> sent -> done -> idle
//        Request    Poll    Poll, once   Consume, or Poll after Release
//                           answered
//
// Threads: everything belongs to the main thread but Callback, which the session library calls on a
// thread of its own. A session must stay where it is from Init to Terminate: the library knows its
// address.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace vexa {

// Commands, to which the applications give the meaning.
enum class SessionCommand : std::uint32_t {
    kActivate = 1,
    kDeactivate = 2,
    kQuery = 3,   // answered by 1 when the application has the hardware; -1: no answer
    kNotify = 4,  // tells "FGEN" that the host has taken the DAQ over
};

// Who drives the hardware, as the last kActivate or kDeactivate that was requested says.
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

    // Asks for `command` to be sent at the next Poll; `argument` goes to the library as it is (the
    // callers give a time in milliseconds). False, and nothing changes, unless the session is idle
    // and was initialised.
    bool Request(SessionCommand command, std::uint32_t argument);

    // Advances the request by one state.
    void Poll();

    [[nodiscard]] bool IsIdle() const { return requestState == RequestState::kIdle; }
    [[nodiscard]] bool IsBusy() const;
    [[nodiscard]] bool IsDone() const { return requestState > RequestState::kSent; }

    // The answer to the current request, when done; kNoSessionResponse when it could not be sent.
    [[nodiscard]] std::int32_t Response() const { return response; }

    // Ends a request that is done.
    void Consume();

    // Nobody wants the current result: Poll consumes it when it has come.
    void Release() { released = true; }

    [[nodiscard]] SessionHolder Holder() const { return holder; }
    void SetHolder(SessionHolder state) { holder = state; }
    [[nodiscard]] bool HasError() const { return error != SessionError::kNone; }

  private:
    enum class RequestState : std::uint32_t { kIdle = 0, kWaiting = 1, kSent = 50, kDone = 100 };
    // The one warning that a session ever prints.
    enum class Warning : std::uint32_t { kNone = 0, kUnexpected = 10, kMismatch = 20 };

    static void Callback(void* session, std::uint32_t command, std::int32_t response);
    void TakeAnswer(std::uint32_t answeredCommand, std::int32_t answer);
    bool WarnOnce(Warning warning);
    void Send();

    // Atomic: also touched by the library's thread.
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

}  // namespace vexa
