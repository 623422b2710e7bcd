#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "foundation/GThread.h"
#include "foundation/OSThreading.h"
#include "support/Output.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;
using Sleeps = std::vector<std::int64_t>;

// What a worker's functions return, and how often each was called.
struct Calls {
    std::int32_t initResult = 1;
    std::int32_t exitResult = 1;
    int endsAfter = -1;  // passes
    std::atomic<int> init{0}, work{0}, exit{0};
    Sleeps sleeps;  // of the worker, before its last pass
};

Calls& Of(void* context) { return *static_cast<Calls*>(context); }

std::int32_t Init(void* context) { return ++Of(context).init, Of(context).initResult; }
std::int32_t Exit(void* context) { return ++Of(context).exit, Of(context).exitResult; }
std::int32_t Work(void* context) {
    Of(context).sleeps = VirtualTime::TakeSleeps();
    return ++Of(context).work == Of(context).endsAfter ? -1 : 0;
}

TEST(GThread, WorksEvery30MillisecondsUntilItIsDestroyedOrDone) {
    const VirtualTime time;
    struct Case {
        bool runOnce;
        int endsAfter;
        int passes;  // -1: until it is destroyed
        Sleeps sleeps;
    };
    for (const Case& each :
         {Case{false, -1, -1, {30000}}, {false, 3, 3, {30000}}, {true, -1, 1, {}}}) {
        Calls calls;
        calls.endsAfter = each.endsAfter;
        {
            GThread thread(Work, nullptr, nullptr, Init, Exit, &calls, 0, each.runOnce);
            ASSERT_TRUE(thread.Start(3));
            while (each.passes < 0 ? calls.work < 5 : calls.exit == 0) OSSleep(1);
        }
        EXPECT_EQ(calls.init, 1);
        EXPECT_EQ(calls.exit, 1);
        EXPECT_EQ(calls.sleeps, each.sleeps) << "between two passes";
        if (each.passes > 0) {
            EXPECT_EQ(calls.work, each.passes);
        }
    }
}

TEST(GThread, ReportsFailingHooksAndThreads) {
    for (const bool initFails : {true, false}) {
        Calls calls;
        (initFails ? calls.initResult : calls.exitResult) = 0;
        EXPECT_EQ(Printed([&] {
                      GThread thread(Work, nullptr, nullptr, Init, Exit, &calls, 0, true);
                      thread.Start(3);
                  }),
                  initFails ? "GThread Line: 102\n" : "GThread Line: 99\n");
        EXPECT_EQ(calls.work + calls.exit, initFails ? 0 : 2);
    }
    GThread neverStarted(Work, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false);
    failing.threadCreate = 1;
    EXPECT_FALSE(neverStarted.Start(3));
}

TEST(OSMutex, IsRecursiveAndItsTimedLockGivesUpWithALine) {
    const VirtualTime time;
    const OSMutexPtr mutex(OSCreateMutex("name"));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 0));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 1));
    for (const auto& [timeoutMs, tries] : {std::pair{0, 0}, {1, 0}, {2, 0}, {3, 2}, {2000, 1000}}) {
        const std::string text = Traced([&, timeout = timeoutMs, sleeps = tries] {
            std::thread([&] {
                EXPECT_FALSE(OSLockMutex(mutex.get(), timeout));
                EXPECT_EQ(VirtualTime::TakeSleeps(), Sleeps(static_cast<std::size_t>(sleeps), 2000))
                    << timeout;
            }).join();
        });
        EXPECT_EQ(text,
                  "GThread_Linux(118) : Trying to lock mutex N on thread N in VEXA_lib failed\n");
    }
    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    std::thread([&] {
        EXPECT_TRUE(OSLockMutexBlocking(mutex.get()));
        EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    }).join();
}

TEST(OSThreading, ReportsWhatCannotBeMade) {
    failing.mutexInit = 1;
    EXPECT_EQ(Traced([] { EXPECT_EQ(OSCreateMutex(""), nullptr); }),
              "GThread_Linux(62) : Trouble in paradise\n");
    failing.semaphoreInit = 1;
    EXPECT_EQ(Traced([] { EXPECT_EQ(OSCreateSemaphore(), nullptr); }),
              "GThread_Linux(171) : Trouble in paradise\n");
}

// That it interrupts a blocking call is shown by the transports' tests.
TEST(IOAbortSignal, FirstRegistrationWins) {
    const auto handlerOf = [](int number) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        return action.sa_handler;
    };
    OSDeregisterIOAbortSignal();
    EXPECT_EQ(OSRegisterIOAbortSignal(0), -1);
    ASSERT_EQ(OSRegisterIOAbortSignal(SIGRTMIN + 12), 0);
    ASSERT_EQ(IO_ABORT_SIGNAL, SIGRTMIN + 12);
    EXPECT_EQ(OSRegisterIOAbortSignal(IO_ABORT_SIGNAL + 1), 0);
    EXPECT_NE(handlerOf(IO_ABORT_SIGNAL), SIG_DFL);
    EXPECT_EQ(handlerOf(IO_ABORT_SIGNAL + 1), SIG_DFL);
    EXPECT_EQ(OSDeregisterIOAbortSignal(), 0);
    EXPECT_EQ(handlerOf(IO_ABORT_SIGNAL), SIG_DFL);
}

}  // namespace
}  // namespace vexa
