// The socket that controls a running unit: one request per line, one answer per line.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Runtime.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

// What becomes of a request.
struct ControlAnswer {
    std::string line = {};  // without the line feed
    // If set, the answer comes later: this is called every few ms until it returns the line. The
    // client's next request is read then.
    std::function<std::optional<std::string>()> later = {};
    bool subscribes = false;  // events follow the answer
};

// Serves several clients at a time. One that sends an overlong line, or does not read its answers,
// is disconnected; so is the one that has been idle longest when there are too many.
class VEXA_UNIT_EXPORT ControlServer {
  public:
    // Carries out a request, a line without the line feed.
    using Answer = std::function<ControlAnswer(const std::string& line)>;

    // Accepts clients from `listener` on a thread of its own, which also calls `answer`.
    ControlServer(testkit::Descriptor listener, Answer answer);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

    // Sends a line to each client that has subscribed. Any thread.
    void Publish(const std::string& line);
    // Whether anybody has. Any thread.
    [[nodiscard]] bool HasListeners() const { return listeners != 0; }

  private:
    struct Client {
        testkit::Descriptor connection;
        std::string received = {};  // the part that has not been answered
        std::string unsent = {};    // answers and events
        std::function<std::optional<std::string>()> later = {};  // as in ControlAnswer
        bool isSubscribed = false;
        bool isEnding = false;         // nothing more is read from it
        bool isGone = false;           // to be removed
        std::uint64_t lastServed = 0;  // the higher, the later
    };

    // The server's thread.
    void Run();
    void AcceptClient();
    // Disconnects the client that has been idle longest. False when none is idle.
    bool MakeRoom();
    void Serve(Client& client, short happened);
    void Read(Client& client);
    void AnswerLines(Client& client);
    void PassEventsOn();
    [[nodiscard]] bool IsAnyWaiting() const;
    static void Write(Client& client);

    const testkit::Descriptor listener;
    const testkit::Descriptor wake;  // eventfd, readable when there are events, or the end is near
    const Answer answer;
    // The server's thread only.
    std::vector<Client> clients;
    std::uint64_t served = 0;  // how often a client was

    std::atomic<std::size_t> listeners = 0;
    Mutex mutex;
    std::string events VEXA_GUARDED_BY(mutex);  // that have not been passed on
    std::atomic<bool> stopping = false;
    std::thread thread;
};

}  // namespace vexa::unit
