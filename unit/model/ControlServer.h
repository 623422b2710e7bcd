// The socket that controls a running unit: one request per line, one answer per line.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "model/Runtime.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

// Serves several clients at a time. One that sends an overlong line, or does not read its answers,
// is disconnected.
class VEXA_UNIT_EXPORT ControlServer {
  public:
    // Returns the answer to a line, both without the line feed.
    using Answer = std::function<std::string(const std::string& line)>;

    // Accepts clients from `listener` on a thread of its own, which also calls `answer`.
    ControlServer(testkit::Descriptor listener, Answer answer);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

  private:
    struct Client {
        testkit::Descriptor connection;
        std::string received = {};  // the part that has not been answered
        std::string unsent = {};    // answers
        bool isEnding = false;      // nothing more is read from it
        bool isGone = false;        // to be removed
    };

    // The server's thread.
    void Run();
    void AcceptClient();
    void Serve(Client& client, short events) const;
    void Read(Client& client) const;
    void AnswerLines(Client& client) const;
    static void Write(Client& client);

    const testkit::Descriptor listener;
    const testkit::Descriptor stop;  // eventfd, readable when the thread is to end
    const Answer answer;
    std::vector<Client> clients;
    std::thread thread;
};

}  // namespace vexa::unit
