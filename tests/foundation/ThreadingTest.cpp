#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <regex>
#include <string>
#include <thread>

#include "foundation/GThread.h"
#include "foundation/GUtils.h"
#include "foundation/OSThreading.h"
#include "support/Output.h"

namespace vexa {
namespace {

using test::Printed;

// Counts the calls of a worker's functions; workResult is what the work function returns.
struct Calls {
    std::atomic<int> work{0}, init{0}, exit{0}, stop{0};
    std::atomic<int> workResult{0}, initResult{1}, exitResult{1};
    std::atomic<bool> release{false};
};

Calls& Of(void* context) { return *static_cast<Calls*>(context); }

std::int32_t Work(void* context) {
    ++Of(context).work;
    return Of(context).workResult;
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

void AwaitWork(const Calls& calls, int count) {
    while (calls.work < count) OSSleep(1);
}

TEST(GThread, LoopsUntilItIsDestroyed) {
    Calls calls;
    {
        GThread thread(Work, nullptr, nullptr, Init, Exit, &calls, 0, false);
        ASSERT_TRUE(thread.Start(3));
        AwaitWork(calls, 3);
    }
    EXPECT_EQ(calls.init, 1);
    EXPECT_EQ(calls.exit, 1);
}

TEST(GThread, EndsByItselfAfterMinusOneOrASingleRun) {
    for (const bool runOnce : {false, true}) {
        Calls calls;
        calls.workResult = runOnce ? 0 : -1;
        {
            GThread thread(Work, nullptr, nullptr, nullptr, Exit, &calls, 0, runOnce);
            ASSERT_TRUE(thread.Start(3));
            while (calls.exit == 0) OSSleep(1);
        }
        EXPECT_EQ(calls.work, 1);
    }
}

TEST(GThread, ReportsFailingHooks) {
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
}

TEST(GLiteThread, CallsItsStopFunctionOnlyIfStarted) {
    Calls calls;
    { const GLiteThread never(RunUntilStopped, StopRun, &calls); }
    EXPECT_EQ(calls.stop, 0);
    {
        GLiteThread thread(RunUntilStopped, StopRun, &calls);
        ASSERT_TRUE(thread.Start(3));
        AwaitWork(calls, 1);
    }
    EXPECT_EQ(calls.work, 1);
    EXPECT_EQ(calls.stop, 1);
}

TEST(OSMutex, IsRecursiveAndItsTimedLockGivesUpWithALine) {
    const OSMutexPtr mutex(OSCreateMutex("name"));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 0));
    ASSERT_TRUE(OSLockMutex(mutex.get(), 1));
    SetTraceThreshold(1);
    bool locked = true;
    const std::string text =
        Printed([&] { std::thread([&] { locked = OSLockMutex(mutex.get(), 5); }).join(); });
    EXPECT_FALSE(locked);
    EXPECT_TRUE(std::regex_match(text, std::regex("GThread_Linux\\(118\\) : Trying to lock mutex "
                                                  "-?\\d+ on thread -?\\d+ in VEXA_lib failed\n")))
        << text;
    SetTraceThreshold(100);

    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    std::thread([&] {
        EXPECT_TRUE(OSLockMutexBlocking(mutex.get()));
        EXPECT_TRUE(OSUnlockMutex(mutex.get()));
    }).join();
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
    ASSERT_EQ(OSRegisterIOAbortSignal(0), -1);
    ASSERT_EQ(OSRegisterIOAbortSignal(-5), -1);
    ASSERT_EQ(OSRegisterIOAbortSignal(IO_ABORT_SIGNAL), 0);
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
