#include "foundation/GThread.h"

#include <csignal>

#include "foundation/GUtils.h"
#include "foundation/OSThreading.h"

namespace vexa {

namespace {

constexpr char kModule[] = "GThread";
constexpr int kExitFailedLine = 99;
constexpr int kInitFailedLine = 102;

constexpr std::uint32_t kPassPauseMs = 30;
constexpr std::uint32_t kEndPollMs = 10;

bool StartThread(std::optional<pthread_t>& handle, void* (*body)(void*), void* object) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, object) != 0) return false;
    handle = thread;
    return true;
}

void WaitAndJoin(std::optional<pthread_t>& handle, const std::atomic<bool>& busy) {
    while (busy) OSSleep(kEndPollMs);
    pthread_join(*handle, nullptr);
    handle.reset();
}

void WakeUntilEnded(const std::optional<pthread_t>& handle, const std::atomic<bool>& busy,
                    std::uint32_t graceMs) {
    for (std::uint32_t waitedMs = 0; busy; waitedMs += kEndPollMs) {
        if (waitedMs >= graceMs) pthread_kill(*handle, IO_ABORT_SIGNAL);
        OSSleep(kEndPollMs);
    }
}

void ServeRequest(std::atomic<bool>& pending, GThreadFunction handler, void* context) {
    if (!pending) return;  // GCOVR_EXCL_BR_LINE: nothing raises a request
    if (handler != nullptr) handler(context);
    pending = false;
}

}  // namespace

GThread::GThread(GThreadFunction workFunction_, GThreadFunction firstRequestHandler_,
                 GThreadFunction secondRequestHandler_, GThreadFunction initFunction_,
                 GThreadFunction exitFunction_, void* context_, int /*reserved*/, bool runOnce_)
    : workFunction(workFunction_),
      firstRequestHandler(firstRequestHandler_),
      secondRequestHandler(secondRequestHandler_),
      initFunction(initFunction_),
      exitFunction(exitFunction_),
      context(context_),
      stopRequested(runOnce_),
      runOnce(runOnce_) {}

GThread::~GThread() {
    if (!threadHandle) return;
    stopRequested = true;
    WaitAndJoin(threadHandle, alive);
}

void GThread::StopBlocked(std::uint32_t graceMs) {
    if (!threadHandle) return;
    stopRequested = true;
    WakeUntilEnded(threadHandle, alive, graceMs);
}

bool GThread::Start(int /*priority*/) { return StartThread(threadHandle, ThreadMain, this); }

void* GThread::ThreadMain(void* thread) {
    if (thread != nullptr) static_cast<GThread*>(thread)->Run();  // GCOVR_EXCL_BR_LINE: never null
    return nullptr;
}

void GThread::Run() {
    if (initFunction != nullptr && initFunction(context) == 0) {
        OSAssert(0, kModule, kInitFailedLine);
        alive = false;
        return;
    }
    if (workFunction != nullptr) RunPasses();
    if (exitFunction != nullptr) OSAssert(exitFunction(context), kModule, kExitFailedLine);
    alive = false;
}

void GThread::RunPasses() {
    while (runOnce || !stopRequested) {
        ServeRequest(firstRequestPending, firstRequestHandler, context);
        ServeRequest(secondRequestPending, secondRequestHandler, context);
        if (workFunction(context) == -1 || runOnce) return;
        OSYield();
        OSSleep(kPassPauseMs);
    }
}

GLiteThread::GLiteThread(GThreadFunction runFunction_, GThreadFunction stopFunction_,
                         void* context_)
    : runFunction(runFunction_), stopFunction(stopFunction_), context(context_) {}

GLiteThread::~GLiteThread() {
    if (!threadHandle) return;
    if (stopFunction != nullptr) stopFunction(context);
    WaitAndJoin(threadHandle, running);
}

void GLiteThread::StopBlocked(std::uint32_t graceMs) {
    if (!threadHandle) return;
    if (stopFunction != nullptr) stopFunction(context);
    WakeUntilEnded(threadHandle, running, graceMs);
}

bool GLiteThread::Start(int /*priority*/) { return StartThread(threadHandle, ThreadMain, this); }

void* GLiteThread::ThreadMain(void* thread) {
    auto* self = static_cast<GLiteThread*>(thread);
    if (self == nullptr) return nullptr;               // GCOVR_EXCL_BR_LINE: never null
    if (self->runFunction == nullptr) return nullptr;  // GCOVR_EXCL_BR_LINE: always given
    self->running = true;
    self->runFunction(self->context);
    self->running = false;
    return nullptr;
}

}  // namespace vexa
