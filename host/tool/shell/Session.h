// The shell's session: its state, its commands, and how a command ends.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Connection.h"
#include "vexahost/SampleFormat.h"

namespace vexahost::tool {

// The words of a command line.
using Words = std::vector<std::string>;

// Splits a line into words at blanks. Double quotes keep blanks in a word; "#" at the start of a
// word begins a comment. Nothing when a quote is not closed.
std::optional<Words> SplitLine(std::string_view line);

struct Outcome {
    std::optional<Error> error;  // nothing: success
    std::string text;            // to be printed; any number of lines
    bool skipsRound = false;     // a command after "try" has lost the link
    bool quits = false;

    static Outcome Good(std::string text = {}) { return {std::nullopt, std::move(text)}; }
    static Outcome Failed(Error error) { return {std::move(error), {}}; }

    // A wrong command line; nothing was done.
    static Outcome Wrong(std::string why) {
        return Failed({ErrorKind::kInvalidArgument, std::move(why)});
    }

    // A check or an expectation that does not hold.
    static Outcome Unmet(std::string why) { return Failed({ErrorKind::kRefused, std::move(why)}); }
};

// One thread at a time.
class Session {
  public:
    using Clock = std::chrono::steady_clock;

    struct Device {
        std::string name;
        ChildId id;
        Clock::time_point opened;
    };

    // Connects and synchronises. When the link is lost meanwhile, tries again for some seconds.
    static Expected<std::unique_ptr<Session>> Start(const UnitAddress& unit, DeviceFormats formats);

    Session(ClientHandle connected, UnitAddress address, DeviceFormats formats_)
        : client(std::move(connected)), unit(std::move(address)), formats(std::move(formats_)) {}

    // Runs one command, with "expect" or "try" before it if the user likes.
    Outcome Run(const Words& words);

    [[nodiscard]] bool IsLinkUp() const { return !client->LinkError(); }

    // Names of the open devices.
    [[nodiscard]] std::vector<std::string> OpenNames() const;

    // For the commands.

    // The id of the open device with this name, else the id that `text` is.
    [[nodiscard]] std::optional<ChildId> FindId(const std::string& text) const;

    // A block in words; without `id` of the DAQ.
    [[nodiscard]] std::string Describe(std::optional<ChildId> id, const Block& block) const;

    // An id that no open device has.
    [[nodiscard]] ChildId FreeId() const;

    // Nothing is open any more: forgets the devices, drops the DAQ's packets and counts them anew.
    void ForgetAll();

    const ClientHandle client;
    const UnitAddress unit;
    const DeviceFormats formats;
    std::vector<Device> devices;                // open ones
    Clock::time_point daqSince = Clock::now();  // the DAQ's packets are counted since then
    ClientStatistics before;                    // the counts at that time

  private:
    Outcome RunExpect(Words words);
    Outcome RunTry(const Words& words);
};

// One command of the shell.
struct Command {
    const char* name;
    const char* arguments;  // for help
    const char* help;
    std::size_t least;  // arguments
    std::size_t most;
    Outcome (*run)(Session& session, const Words& arguments);
};

// All commands, in the order of the help text.
const std::vector<Command>& Commands();

// The help text: all commands and what they do.
std::string CommandsHelp();

}  // namespace vexahost::tool
