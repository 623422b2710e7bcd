// libVEXA and libvexcri as a test wants them: they do what the script says and note the calls. One
// script per process; each test resets it.
#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "VEXA.h"
#include "support/Bytes.h"
#include "vexcri.h"

namespace vexa::test {

// "criInit(DAQ, 1)" from its parts.
template <typename... Parts>
std::string Joined(const Parts&... parts) {
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

struct ScriptedLibraries {
    struct Stream {
        std::string device;
        VEXA_ReadCallback callback;
        void* context;
    };
    struct Session {
        std::string name;
        CriCallback callback;
        void* context;
    };

    static ScriptedLibraries& Get();
    static void Reset() { Get() = ScriptedLibraries(); }

    // The calls since the last time, except writes: "VEXA_Device_Stream_Close(2)", ...
    std::vector<std::string> TakeCalls();

    // Has the device behind a stream send a block. Returns the callback's result.
    std::int32_t Send(std::uint32_t stream, const Bytes& block);
    // Has an application answer.
    void Answer(const std::string& application, std::uint32_t command, std::int32_t response);

    // The script.
    std::uint32_t library = 9;                      // handle of VEXA_Init
    std::map<std::string, std::uint32_t> types;     // of all known names
    std::map<std::uint32_t, std::string> attached;  // first device of a type
    bool snapshotsOpen = true;
    bool streamsOpen = true;
    bool writesSucceed = true;
    bool recordWrites = true;
    bool deviceOpens = true;
    Bytes daqAnswer;  // sent at once for the initial sync written to the board
    std::map<std::string, std::int32_t> initResults;  // of criInit; 1 when not named
    std::map<std::uint32_t, std::int32_t> answers;    // by command, inside criCommand
    std::int32_t commandResult = 1;                   // of criCommand

    // What happened.
    std::vector<std::string> calls;
    std::map<std::uint32_t, Stream> streams;
    std::map<std::uint32_t, Session> sessions;
    std::vector<std::string> writes;  // "2: 40 05 ..."
    std::uint32_t lastHandle = 0;
};

}  // namespace vexa::test
