#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "foundation/GThread.h"
#include "foundation/GUtils.h"
#include "foundation/OSThreading.h"
#include "support/Output.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;
using Sleeps = std::vector<std::int64_t>;

// The functions of a worker: how often each was called, and what it is to return.
struct Calls {
    std::atomic<int> work{0}, init{0}, exit{0}, stop{0};
    std::atomic<int> workResult{0}, initResult{1}, exitResult{1};
    std::atomic<int> endsAfter{-1};  // works
    std::atomic<bool> release{false};
    Sleeps sleeps;  // of the worker, as its last work saw them
};

Calls& Of(void* context) { return *static_cast<Calls*>(context); }

std::int32_t Work(void* context) {
    Calls& calls = Of(context);
    calls.sleeps = VirtualTime::TakeSleeps();
    return ++calls.work == calls.endsAfter ? -1 : calls.workResult.load();
}
std::int32_t Init(void* context) {
    ++Of(context).init;
    return Of(context).initResult;
}
std::int32_t Exit(void* context) {
    ++Of(context).exit;
    return Of(context).exitResult;
}
std::int32_t RunUntilStopped(void* context) {
    ++Of(context).work;
    while (!Of(context).release) OSSleep(1);
    return 0;
}
std::int32_t StopRun(void* context) {
    ++Of(context).stop;
    Of(context).release = true;
    return 0;
}

TEST(GThread, WorksEvery30MillisecondsUntilItIsDestroyedOrDone) {
    const VirtualTime time;
    struct Case {
        bool runOnce;
        int endsAfter;
        int works;
        Sleeps sleeps;
    };
    for (const Case& each :
         {Case{false, -1, 0, {30000}}, {false, 3, 3, {30000}}, {true, -1, 1, {}}}) {
        Calls calls;
        calls.endsAfter = each.endsAfter;
        {
            GThread thread(Work, nullptr, nullptr, Init, Exit, &calls, 0, each.runOnce);
            ASSERT_TRUE(thread.Start(3));
            while (calls.work < std::max(each.works, 1)) OSSleep(1);
            if (each.works == 0) {
                while (calls.work < 5) OSSleep(1);
            } else {
                while (calls.exit == 0) OSSleep(1);
            }
        }
        EXPECT_EQ(calls.init, 1);
        EXPECT_EQ(calls.exit, 1);
        if (each.works != 0) {
            EXPECT_EQ(calls.work, each.works);
        }
        EXPECT_EQ(calls.sleeps, each.sleeps) << "between two works";
    }
}

TEST(GThread, ReportsFailingHooksAndThreads) {
    Calls badInit;
    badInit.initResult = 0;
    EXPECT_EQ(Printed([&] {
                  GThread thread(Work, nullptr, nullptr, Init, Exit, &badInit, 0, false);
                  thread.Start(3);
              }),
              "GThread Line: 102\n");
    EXPECT_EQ(badInit.work + badInit.exit, 0);

    Calls badExit;
    badExit.exitResult = 0;
    EXPECT_EQ(Printed([&] {
                  GThread thread(Work, nullptr, nullptr, nullptr, Exit, &badExit, 0, true);
                  thread.Start(3);
              }),
              "GThread Line: 99\n");

    GThread neverStarted(Work, nullptr, nullptr, nullptr, nullptr, &badExit, 0, false);
    failing.threadCreate = 1;
    EXPECT_FALSE(neverStarted.Start(3));
}

TEST(GLiteThread, CallsItsStopFunctionOnlyIfStarted) {
    Calls calls;
    { const GLiteThread never(RunUntilStopped, StopRun, &calls); }
    EXPECT_EQ(calls.stop, 0);
    {
        GLiteThread thread(RunUntilStopped, StopRun, &calls);
        ASSERT_TRUE(thread.Start(3));
        while (calls.work < 1) OSSleep(1);
    }
    EXPECT_EQ(calls.work, 1);
    EXPECT_EQ(calls.stop, 1);
}

TEST(OSMutex, IsRecursiveAndItsTimedLockGivesUpWithALine) {
    const VirtualTime time;
    const OSMutexPtr mutex(OSCreateMutex("name"));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 0));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 1));
    SetTraceThreshold(1);
    for (const auto& [timeoutMs, tries] : {std::pair{0, 0}, {1, 0}, {2, 0}, {3, 2}, {2000, 1000}}) {
        Sleeps sleeps;
        const std::string text = Printed([&, timeout = timeoutMs] {
            std::thread([&] {
                EXPECT_FALSE(OSLockMutex(mutex.get(), timeout));
                sleeps = VirtualTime::TakeSleeps();
            }).join();
        });
        EXPECT_EQ(sleeps, Sleeps(static_cast<std::size_t>(tries), 2000)) << timeoutMs;
        EXPECT_EQ(Masked(text),
                  "GThread_Linux(118) : Trying to lock mutex N on thread N in VEXA_lib failed\n");
    }
    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    std::thread([&] {
        EXPECT_TRUE(OSLockMutexBlocking(mutex.get()));
        EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    }).join();
    failing.mutexInit = 1;
    EXPECT_EQ(Printed([] { EXPECT_EQ(OSCreateMutex(""), nullptr); }),
              "GThread_Linux(62) : Trouble in paradise\n");
    failing.semaphoreInit = 1;
    EXPECT_EQ(Printed([] { EXPECT_EQ(OSCreateSemaphore(), nullptr); }),
              "GThread_Linux(171) : Trouble in paradise\n");
    SetTraceThreshold(100);
}

TEST(OSSemaphore, CountsPosts) {
    const OSSemaphorePtr semaphore(OSCreateSemaphore());
    std::thread poster([&] {
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(OSPostSemaphore(semaphore.get()));
    });
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(OSWaitSemaphore(semaphore.get()));
    poster.join();
}

TEST(IOAbortSignal, FirstRegistrationWinsAndInterruptsABlockingRead) {
    OSDeregisterIOAbortSignal();
    ASSERT_EQ(OSRegisterIOAbortSignal(0), -1);
    ASSERT_EQ(OSRegisterIOAbortSignal(-5), -1);
    ASSERT_EQ(OSRegisterIOAbortSignal(SIGRTMIN + 12), 0);
    ASSERT_EQ(IO_ABORT_SIGNAL, SIGRTMIN + 12);
    ASSERT_EQ(OSRegisterIOAbortSignal(IO_ABORT_SIGNAL + 1), 0);
    struct sigaction action {};
    sigaction(IO_ABORT_SIGNAL + 1, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);

    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::atomic<bool> ended{false};
    ssize_t result = 0;
    int error = 0;
    std::thread reader([&] {
        char byte = 0;
        result = read(ends[0], &byte, 1);
        error = errno;
        ended = true;
    });
    while (!ended) {
        pthread_kill(reader.native_handle(), IO_ABORT_SIGNAL);
        OSSleep(1);
    }
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    close(ends[0]);
    close(ends[1]);

    EXPECT_EQ(OSDeregisterIOAbortSignal(), 0);
    sigaction(IO_ABORT_SIGNAL, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace vexa
