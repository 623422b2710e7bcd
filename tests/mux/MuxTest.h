// The whole multiplexer over a queued host link and scripted libraries.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "foundation/GUtils.h"
#include "mux/HostMux.h"
#include "support/HostPackets.h"
#include "support/Output.h"
#include "support/QueuedHostLink.h"
#include "support/ScriptedLibraries.h"
#include "support/System.h"

namespace vexa::test {

inline const char kSync[] =
    "40 19 4d d6 1a 05 4a 06 49 07 48 08 47 09 46 0a 45 0b 44 0c 43 0d 42 0e 41";

class MuxTest : public testing::Test {
  protected:
    static constexpr std::uint32_t kLibrary = 9;
    const std::uint32_t library = kLibrary;

    MuxTest() {
        ScriptedLibraries::Reset();
        script.types = {{"stream8", 8}, {"stream9", 9}, {"stream11", 11}, {"hid2", 2},
                        {"hid3", 3},    {"hid4", 4},    {"type7", 7},     {"type12", 12}};
        script.attached = {{8, "first of 8"}, {9, "nine"},  {11, "eleven"}, {2, "two"},
                           {3, "three"},      {5, "board"}, {7, "seven"}};
        script.daqAnswer = DaqSyncAnswer();
        sessions.Init();
        EXPECT_TRUE(mux.Init());
        mux.MarkConnected();
        script.TakeCalls();
    }

    // One pass with these bytes from the host, polling the sessions as the main loop does.
    void Pass(const Bytes& bytes = {}) {
        link.HostSends(bytes);
        mux.Pass();
        sessions.Poll();
    }
    // Passes until the host has got something.
    std::string Reply(const Bytes& bytes) {
        Pass(bytes);
        std::string reply = link.Take();
        for (int pass = 0; reply.empty() && pass < 30; ++pass) {
            Pass();
            reply = link.Take();
        }
        return reply;
    }

    void OpenControllerFirst(bool withDaq = false) {
        ASSERT_EQ(Reply(OpenController(withDaq)), ControllerReply(0, 0x98, 0x72, 0));
        script.TakeCalls();
    }

    // Opens a child and returns its stream.
    std::uint32_t Open(std::uint32_t id, const std::string& name) {
        const std::string reply = Reply(OpenChild(id, name));
        EXPECT_EQ(reply.substr(24, 8), "98 07 " + reply.substr(6, 2)) << name;
        return script.lastHandle;
    }

    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    DAQIO daq{library};
    AppSessions sessions;
    HostMux mux{library, daq, sessions};
};

}  // namespace vexa::test
