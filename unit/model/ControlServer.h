// The socket on which a running unit is controlled: a request a line, and an answer a line.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "model/Descriptor.h"
#include "model/Export.h"

namespace vexa::unit {

// Serves several clients at a time. One that sends a line without an end, or takes no answers, is
// hung up on.
class VEXA_UNIT_EXPORT ControlServer {
  public:
    // The answer to a line; neither has the line feed.
    using Answer = std::function<std::string(const std::string& line)>;

    // Takes clients from `listener` on a thread of its own, which also calls `answer`.
    ControlServer(Descriptor listener, Answer answer);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

  private:
    struct Client {
        Descriptor connection;
        std::string received = {};  // without the lines that have been answered
        std::string unsent = {};    // answers
        bool isEnding = false;      // nothing is read from it any more
        bool isGone = false;
    };

    // All below: the server's thread.
    void Run();
    void TakeClient();
    void Serve(Client& client, short events) const;
    void Read(Client& client) const;
    void AnswerLines(Client& client) const;
    static void Write(Client& client);

    const Descriptor listener;
    const Descriptor stop;  // eventfd, readable once the thread is to end
    const Answer answer;
    std::vector<Client> clients;
    std::thread thread;
};

}  // namespace vexa::unit
