// The abstract byte-stream device that every host transport derives from: public operations under
// one mutex, delivery of received bytes to a read callback, and a write-behind output path.
//
// Owner thread: the thread that constructs the device. It holds `deviceMutex` for the object's
// whole life. From any other thread Open, Close, Query, Read, Write, WriteString and Purge print an
// assertion line and return 0 without doing anything. QueueWrite: any thread, while the device is
// open. The read callback runs on the transport's reader thread.
//
// Results are 0 for success and -1 for failure unless said otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "foundation/GCircularBuffer.h"
#include "foundation/GPortRef.h"
#include "foundation/GThread.h"
#include "foundation/OSThreading.h"

namespace vexa {

// Receives `count` bytes, valid during the call only; the result is ignored. Reader thread.
using GReadCallback = int (*)(const unsigned char* data, int count, void* context);

class GDeviceIO {
  public:
    // `port` must not be null; it is copied.
    explicit GDeviceIO(const GPortRef* port);

    // The virtual operations keep this order, which is that of their slots.
    virtual ~GDeviceIO();

    // Opens the transport and, with bufferedOutput, its output buffer and writer thread.
    virtual int Open(const GPortRef* port);

    // Stops the writer, drops queued output and closes the transport.
    virtual int Close();

    // Guarded calls of OSQuery and OSRead, which no transport implements. The service has no
    // caller.
    virtual int Query();
    virtual int Read(std::intptr_t a, std::intptr_t b, std::intptr_t c);

    // Sends `*count` bytes: queued when output is buffered and the device open (`*count` stays as
    // it was), else straight to the transport (`*count` becomes what went out).
    virtual int Write(const void* data, int* count);
    // The same for a string without its terminating zero byte. The service has no caller.
    virtual int WriteString(const char* text);

    // Drops queued output; the result is that of the transport's OSPurge.
    virtual int Purge();

    // The hooks of a transport. OSWrite takes deviceMutex itself; OSWriteUnlocked runs on the
    // writer thread and never does. Both leave in `*count` what was written.
    virtual bool OSInitialize();
    virtual void OSUninitialize();
    virtual int OSOpen(const GPortRef* port);
    virtual int OSClose();
    virtual int OSQuery();
    virtual int OSRead(std::intptr_t a, std::intptr_t b, std::intptr_t c);
    virtual int OSWrite(const void* data, int* count);
    virtual int OSPurge();

    // Refreshes linkUp; runs on the writer thread, and on the owner's during Open.
    virtual int UpdateLinkStatus();

    // Before Open. SetThreadPriority returns the priority.
    virtual int SetReadCallback(GReadCallback callback, void* context);
    virtual int SetThreadPriority(int priority);

    // The service has no caller.
    virtual bool IsServer();
    virtual int OSWriteUnlocked(const void* data, int* count);

    // Queues `*count` bytes without taking deviceMutex. -1 when there is no output buffer to queue
    // in; with output unbuffered from the start it is Write.
    int QueueWrite(const void* data, int* count);

    GDeviceIO(const GDeviceIO&) = delete;
    GDeviceIO& operator=(const GDeviceIO&) = delete;

  protected:
    // Where and how a refused guard is reported; line 0: not at all.
    struct GuardReport {
        const char* module;
        int unlockFailedLine;
        int lockFailedLine;
    };

    // Runs `operation` under deviceMutex, tried once. Returns its result, or `refused` when the
    // lock could not be had.
    template <typename Operation>
    int Guarded(const GuardReport& report, int refused, Operation operation) {
        if (!EnterGuard(report)) return refused;
        const int result = operation();
        LeaveGuard(report);
        return result;
    }

  public:
    // The fields, in a fixed order. Owner thread, except where a remark says more.
    GReadCallback readCallback = nullptr;
    void* readContext = nullptr;
    std::shared_ptr<void> osData;  // the transport's private record; its reader shares it
    std::int32_t reserved = 2000;  // no operation reads it
    GPortRef portRef;
    std::int32_t threadPriority = 1;          // a hint for the transport's OSOpen
    std::atomic<bool> bufferedOutput{false};  // set before Open; cleared when a signalled writer is
                                              // stopped; also read by the writer threads
    bool signalledWriter = false;  // set before Open: semaphore-driven or polling writer; the
                                   // service uses the polling one
    std::int32_t outputBufferCapacity = 50000;
    std::unique_ptr<CeilingMutex> outputLock;
    std::unique_ptr<GCircularBuffer> outputBuffer;  // deleted before outputLock, its guard
    OSSemaphorePtr writerSemaphore;
    std::unique_ptr<GThread> pollingWriter;
    std::unique_ptr<GLiteThread> signalledWriterThread;
    OSMutexPtr deviceMutex;
    bool mutexHeld = false;
    std::atomic<bool> isOpen{false};  // read from any thread
    std::atomic<bool> linkUp{false};  // written by the writer thread, read from any

  private:
    bool EnterGuard(const GuardReport& report);
    void LeaveGuard(const GuardReport& report);
    bool StartWriter();
    int QueueOutput(const void* data, int count);
    static std::int32_t PollingWriter(void* device);
    static std::int32_t SignalledWriter(void* device);
    static std::int32_t StopSignalledWriter(void* device);
};

}  // namespace vexa
