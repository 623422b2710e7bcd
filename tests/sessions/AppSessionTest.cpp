// Sessions that cannot be initialised; all else is shown by tests/model.

#include <gtest/gtest.h>

#include "sessions/vexAppSession.h"
#include "support/Output.h"
#include "support/ScriptedLibraries.h"

namespace vexa {
namespace {

using namespace test;

TEST(AppSession, RefusesRequestsWhenItsInitFailed) {
    ScriptedLibraries::Reset();
    ScriptedLibraries::Get().initResults["DAQ"] = 2;
    vexAppSession session;
    const std::string line = "vexAppSession(36) : Initiator call to criInit failed.\n";
    EXPECT_EQ(Traced([&] { session.Init("DAQ"); }), line);
    EXPECT_FALSE(session.Request(SessionCommand::kQuery, 1000));
    EXPECT_TRUE(session.HasError());
    EXPECT_EQ(Traced([&] { session.Init(""); }), line);
    EXPECT_EQ(Traced([&] { session.Init(std::string(30, 'x').c_str()); }), line);
    EXPECT_EQ(Traced([&] { session.Init(std::string(29, 'x').c_str()); }), "");
}

}  // namespace
}  // namespace vexa
