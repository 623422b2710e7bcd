// The session that the shell's commands act on.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../Connection.h"
#include "Collector.h"
#include "Outcome.h"

class Session {
  public:
    /// Connects and brings both sides in step; while the link is lost over that, tries again for
    /// some seconds.
    static vexahost::Expected<std::unique_ptr<Session>> Start(const UnitAddress& unit);

    explicit Session(std::unique_ptr<vexahost::Client> connected);

    /// Runs one command; "expect" and "try" in front of it are understood.
    Outcome Run(const Words& words);

    [[nodiscard]] bool IsLinkUp() const { return !client->LinkError(); }

    /// Names of the open devices.
    [[nodiscard]] std::vector<std::string> OpenNames() const;

    /// Names of all commands.
    static std::vector<std::string> CommandNames();

    /// All commands with what they do.
    static std::string HelpText();

  private:
    using Clock = std::chrono::steady_clock;

    struct Verb {
        const char* name;
        const char* arguments;
        const char* help;
        std::size_t least;  // arguments
        std::size_t most;
        Outcome (Session::*run)(const Words& arguments);
    };
    static const std::vector<Verb>& Verbs();

    struct Device {
        std::string name;
        vexahost::ChildId id;
        Clock::time_point opened;
    };

    // The commands, each with the words behind its name.
    Outcome Sync(const Words& arguments);
    Outcome Controller(const Words& arguments);
    Outcome Query(const Words& arguments);
    Outcome Takeover(const Words& arguments);
    Outcome Open(const Words& arguments);
    Outcome Close(const Words& arguments);
    Outcome Send(const Words& arguments);
    Outcome Raw(const Words& arguments);
    Outcome Mux(const Words& arguments);
    Outcome Receive(const Words& arguments);
    Outcome Arm(const Words& arguments);
    Outcome Stats(const Words& arguments);
    Outcome Check(const Words& arguments);
    Outcome Reconnect(const Words& arguments);
    Outcome Disconnect(const Words& arguments);
    Outcome Wait(const Words& arguments);
    Outcome Echo(const Words& arguments);
    Outcome Help(const Words& arguments);
    Outcome Quit(const Words& arguments);

    Outcome RunExpect(Words words);
    Outcome RunTry(const Words& words);
    void ForgetAll();
    [[nodiscard]] std::optional<vexahost::ChildId> FindId(const std::string& text) const;
    [[nodiscard]] vexahost::ChildId FreeId() const;

    // The figure of a device, or of the DAQ, that "check" asks for; nothing for an unknown one.
    [[nodiscard]] std::optional<double> Figure(const std::string& device,
                                               const std::string& figure) const;
    [[nodiscard]] std::optional<double> DaqFigure(const std::string& figure) const;

    const std::unique_ptr<vexahost::Client> client;
    std::vector<Device> devices;
    Clock::time_point daqOpened = Clock::now();  // since when the DAQ's packets are counted
    Collector collector;                         // last, as its thread uses the client
};
