#include <gtest/gtest.h>

#include <memory>

#include "foundation/GUtils.h"
#include "sessions/vexAppSession.h"
#include "support/Output.h"
#include "support/ScriptedLibraries.h"

namespace vexa {
namespace {

using namespace test;
using Calls = std::vector<std::string>;

class AppSession : public testing::Test {
  protected:
    AppSession() {
        ScriptedLibraries::Reset();
        SetTraceThreshold(1);
    }
    ~AppSession() override { SetTraceThreshold(100); }

    ScriptedLibraries& script = ScriptedLibraries::Get();
    vexAppSession session;
};

TEST_F(AppSession, RefusesRequestsWhenItsInitFailed) {
    script.initResults["DAQ"] = 2;
    const std::string line = "vexAppSession(36) : Initiator call to criInit failed.\n";
    EXPECT_EQ(Printed([&] { session.Init("DAQ"); }), line);
    EXPECT_FALSE(session.Request(SessionCommand::kQuery, 1000));
    EXPECT_TRUE(session.HasError());
    EXPECT_EQ(Printed([&] { session.Init(""); }), line);
    EXPECT_EQ(Printed([&] { session.Init(std::string(30, 'x').c_str()); }), line);
    EXPECT_EQ(Printed([&] { session.Init(std::string(29, 'x').c_str()); }), "");
    session.Terminate();
}

TEST_F(AppSession, CarriesARequestThroughItsStates) {
    session.Init("DAQ");
    ASSERT_TRUE(session.Request(SessionCommand::kDeactivate, 10000));
    EXPECT_EQ(session.Holder(), SessionHolder::kDeactivated);
    EXPECT_FALSE(session.Request(SessionCommand::kActivate, 1000));
    EXPECT_EQ(session.Holder(), SessionHolder::kDeactivated) << "a refusal changes nothing";
    script.TakeCalls();
    session.Poll();
    session.Poll();
    EXPECT_EQ(script.TakeCalls(), Calls{"criCommand(DAQ, 2, 10000)"});
    EXPECT_TRUE(session.IsBusy());
    script.Answer("DAQ", 2, 33);
    EXPECT_TRUE(session.IsBusy()) << "taken by the next poll";
    session.Poll();
    EXPECT_TRUE(session.IsDone());
    EXPECT_EQ(session.Response(), 33);
    session.Poll();
    EXPECT_TRUE(session.IsDone()) << "nobody released it";
    session.Consume();
    EXPECT_TRUE(session.IsIdle());

    session.Request(SessionCommand::kQuery, 1000);
    session.Release();
    EXPECT_EQ(session.Holder(), SessionHolder::kDeactivated) << "a query changes no holder";
    session.Poll();
    script.Answer("DAQ", 3, 1);
    session.Poll();
    session.Poll();
    EXPECT_TRUE(session.IsIdle()) << "released: consumed by itself";

    session.Release();
    session.Request(SessionCommand::kQuery, 1000);
    session.Poll();
    script.Answer("DAQ", 3, 1);
    for (int poll = 0; poll < 3; ++poll) session.Poll();
    EXPECT_TRUE(session.IsDone()) << "a release is of the request before it";
    session.Terminate();
}

TEST_F(AppSession, CompletesACommandThatCannotBeSentAndSaysSoOnce) {
    session.Init("SPLASH");
    script.commandResult = 2;
    EXPECT_EQ(Printed([&] {
                  for (int i = 0; i < 2; ++i) {
                      session.Request(SessionCommand::kActivate, 1000);
                      session.Poll();
                      EXPECT_TRUE(session.IsDone());
                      EXPECT_EQ(session.Response(), -1);
                      session.Consume();
                  }
              }),
              "vexAppSession(120) : criCommand() failed.\n");
    EXPECT_TRUE(session.HasError());
    session.Terminate();
}

}  // namespace
}  // namespace vexa
