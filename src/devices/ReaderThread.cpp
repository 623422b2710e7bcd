#include "devices/ReaderThread.h"

#include <csignal>
#include <utility>

#include "foundation/GUtils.h"
#include "foundation/OSThreading.h"

namespace vexa {

namespace {
constexpr int kExitLooks = 201;
constexpr std::uint32_t kExitLookMs = 10;
}  // namespace

// What a new thread is handed; it owns this block.
struct ReaderThread::Launch {
    ReaderThread* reader;
    Body body;
    std::shared_ptr<void> record;
};

ReaderThread::~ReaderThread() { LetGo(); }

void ReaderThread::LetGo() {
    if (threadHandle) pthread_detach(*threadHandle);
    threadHandle.reset();
}

bool ReaderThread::Start(Body body, std::shared_ptr<void> record) {
    auto launch = std::make_unique<Launch>(Launch{this, body, std::move(record)});
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, ThreadMain, launch.get()) != 0) return false;
    static_cast<void>(launch.release());
    LetGo();  // of one that was given up before
    threadHandle = thread;
    return true;
}

void* ReaderThread::ThreadMain(void* argument) {
    const std::unique_ptr<Launch> launch(static_cast<Launch*>(argument));
    launch->body(launch->record.get());
    launch->reader->threadExited = true;
    return nullptr;
}

bool ReaderThread::Stop() {
    if (!threadHandle) return true;
    stopRequested = true;
    for (int look = 0; !threadExited; ++look) {
        if (look == kExitLooks) {
            givenUp = true;
            return false;
        }
        pthread_kill(*threadHandle, IO_ABORT_SIGNAL);
        OSSleep(kExitLookMs);
    }
    pthread_join(*threadHandle, nullptr);
    threadHandle.reset();
    return true;
}

}  // namespace vexa
