// The demo: a whole host session against a unit that it starts.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Mutex.h"
#include "testkit/ChildProcess.h"
#include "tool/Console.h"
#include "tool/Exit.h"
#include "vexahost/Client.h"

namespace vexahost::tool {

// The virtual unit's journal: a line for each call of the service to the unit's libraries, and for
// each answer of an application. One thread at a time.
class Journal {
  public:
    // The file need not exist yet.
    explicit Journal(std::string filePath) : path(std::move(filePath)) {}

    // Waits for a line that contains `text` among those not yet returned by TakeLines. False when
    // there is none after `timeout`, or when interrupted.
    bool WaitFor(std::string_view text, std::chrono::milliseconds timeout);

    // The complete lines since the last call.
    std::vector<std::string> TakeLines();

  private:
    void Read();

    const std::string path;
    long readTo = 0;  // offset after the last complete line that was read
    std::vector<std::string> lines;
};

// The scripted session between a host and a unit. Runs on the main thread; the client's threads
// call OnPacket.
class Demo {
  public:
    // `command` starts the unit, which makes its host socket and its journal in `directory`.
    Demo(const Console& console, std::vector<std::string> command, std::string directory);
    ~Demo();

    // Plays all steps and ends the unit. Returns the program's exit code.
    ExitCode Run();

  private:
    struct Step {
        const char* title;
        void (Demo::*play)();
        bool essential;  // when it fails, the demo ends
    };
    static const std::vector<Step>& Steps();

    // Steps.
    void StartUnit();
    void PlugIn();
    void Synchronise();
    void OpenController();
    void QueryDaq();
    void TakeDaqOver();
    void OpenSensors();
    void ReadSensors();
    void MeasureEcho();
    void SendWrongChecksum();
    void SendToUnknownChild();
    void OpenUnsupported();
    void OpenTooMany();
    void CloseChildren();
    void CloseController();
    void PullCable();
    void PlugInAgain();
    void EndUnit();

    bool PlayStep(std::size_t number, const Step& step);

    // Connects and waits until the service has noticed the cable.
    void Connect();

    // Marks the step as failed; its first failure is the one shown.
    void Fail(const std::string& expected, const std::string& got);
    void Expect(bool right, const std::string& expected, const std::string& got);
    template <typename T>
    bool ExpectValue(const Expected<T>& result, const std::string& expected);
    void ExpectRefusal(const Expected<Done>& result, ChildId child, int code);

    // Waits for lines that the service's log and the journal must contain, then shows everything
    // since the last call: sent packets, log, journal, received packets.
    void Show(const std::vector<std::string>& logLines,
              const std::vector<std::string>& journalLines);
    // Waits for new output of the unit that contains `text`. False when it has not come after
    // `timeout`, when the output has ended, or when interrupted.
    bool WaitForLog(const std::string& text, std::chrono::milliseconds timeout);
    void ShowTraffic(Direction direction);
    void Note(const std::string& text) const;

    // Library threads and main thread.
    void OnPacket(Direction direction, std::span<const std::uint8_t> packet);

    // Opens a device, shows it, and adds it to `children`.
    void OpenDevice(const std::string& name);

    const Console& console;
    const std::vector<std::string> command;
    const std::string directory;
    Journal journal;
    std::optional<vexa::testkit::ChildProcess> unit;
    std::size_t logShown = 0;  // position in the unit's output up to which it was shown
    std::vector<std::pair<std::string, ChildId>> children;  // open ones
    ChildId nextChild;

    std::string failure;  // of the current step

    struct Heard {
        std::string words;
        std::string bytes;
    };
    vexa::Mutex trafficMutex;
    std::vector<Heard> sent VEXA_GUARDED_BY(trafficMutex);
    std::vector<Heard> received VEXA_GUARDED_BY(trafficMutex);
    bool showRequests VEXA_GUARDED_BY(trafficMutex) = true;
    int daqPacketsToShow VEXA_GUARDED_BY(trafficMutex) = 0;  // that many more are shown

    std::unique_ptr<Client> client;  // last, as its thread uses the above
};

}  // namespace vexahost::tool
