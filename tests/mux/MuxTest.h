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

namespace vexa::test {

class MuxTest : public testing::Test {
  protected:
    MuxTest() {
        ScriptedLibraries::Reset();
        script.types = {{"stream8", 8}, {"stream9", 9}, {"hid2", 2}};
        script.attached = {{8, "first of 8"}, {9, "nine"}, {2, "two"}, {5, "board"}};
        script.daqAnswer = DaqSyncAnswer();
        sessions.Init();
        EXPECT_TRUE(mux.Init());
        mux.MarkConnected();
    }

    // What the host gets for `bytes`.
    std::string Reply(const Bytes& bytes) {
        link.HostSends(bytes);
        mux.Pass();
        return link.Take();
    }

    // Opens a child under a controller; returns its stream.
    std::uint32_t Open(std::uint32_t id, const std::string& name) {
        EXPECT_EQ(Reply(OpenChild(id, name)).substr(24, 2), "98") << name;
        return script.lastHandle;
    }

    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    const std::uint32_t library = 9;
    DAQIO daq{library};
    AppSessions sessions;
    HostMux mux{library, daq, sessions};
};

}  // namespace vexa::test
