// The scripted session between a host and a unit that `vexa-host demo` plays.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "../Console.h"
#include "../ExitCode.h"
#include "Journal.h"
#include "UnitProcess.h"
#include "vexahost/Client.h"

class Demo {
  public:
    /// The unit is `command`, which makes its host socket and its journal in `directory`.
    Demo(const Console& console, std::vector<std::string> command, std::string directory);
    ~Demo();

    /// Plays all steps and ends the unit. The exit code of the program.
    ExitCode Run();

  private:
    struct Step {
        const char* title;
        void (Demo::*play)();
        bool essential;  // when it fails, the steps that need it are left out
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

    // Connects and waits for the service to see the cable.
    void Connect();

    // Notes that the step did not go as it should; the first note of a step is the one shown.
    void Fail(const std::string& expected, const std::string& got);
    void Expect(bool right, const std::string& expected, const std::string& got);
    template <typename T>
    bool ExpectValue(const vexahost::Expected<T>& result, const std::string& expected);
    void ExpectRefusal(const vexahost::Expected<vexahost::Done>& result, vexahost::ChildId child,
                       int code);

    // Waits for the lines of the service's log and of the journal that must come, and shows what
    // both sides have said since the last call: sent, log, journal, received.
    void Show(const std::vector<std::string>& logLines,
              const std::vector<std::string>& journalLines);
    void ShowTraffic(vexahost::Direction direction);
    void Note(const std::string& text) const;

    // Called by the client on its threads.
    void OnPacket(vexahost::Direction direction, std::span<const std::uint8_t> packet);

    // Opens a device and shows it; remembers the child as open.
    void OpenDevice(const std::string& name);

    const Console& console;
    const std::vector<std::string> command;
    const std::string directory;
    Journal journal;
    std::unique_ptr<UnitProcess> unit;
    std::vector<std::pair<std::string, vexahost::ChildId>> children;  // open ones
    vexahost::ChildId nextChild;

    std::string failure;  // of the current step

    struct Heard {
        std::string words;
        std::string bytes;
    };
    std::mutex trafficMutex;  // guards the rest of this group
    std::vector<Heard> sent;
    std::vector<Heard> received;
    bool showRequests = true;  // what is sent is noted
    int daqPacketsToShow = 0;  // packets of the DAQ that are still to be noted
    int blocksToShow = 0;      // blocks of children that are still to be noted

    std::unique_ptr<vexahost::Client> client;  // last, as its thread uses the above
};
