// The common part of the transports: the private record with its reader thread, and the hooks of
// GDeviceIO that open, close and write it under the device mutex. A transport supplies its own
// record type and its texts.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

#include "devices/GDeviceIO.h"
#include "devices/ReaderThread.h"

namespace vexa {

// A program that a library starts must not hold a link open.
void CloseOnExec(int descriptor);

// The private record that osData points to. The owner opens and closes it. Its reader thread shares
// it, and may outlive the device when it cannot be stopped.
struct TransportRecord {
    TransportRecord() = default;
    virtual ~TransportRecord() = default;
    TransportRecord(const TransportRecord&) = delete;
    TransportRecord& operator=(const TransportRecord&) = delete;

    // Whether there is a descriptor to close.
    [[nodiscard]] virtual bool IsOpen() const = 0;
    // Opens what `port` names; false on failure, when Close has still to be called.
    virtual bool Open(const GPortRef& port) = 0;
    // Closes every descriptor that is the owner's to close.
    virtual void Close() = 0;
    // Reads and delivers until StopRequested. Reader thread.
    virtual void Read() = 0;
    // Whether there is a descriptor to write to; and the write itself, one system call and its
    // result.
    [[nodiscard]] virtual bool CanWrite() const = 0;
    virtual ssize_t Write(const void* data, int count) = 0;

    // Calls the read callback. Reader thread.
    void Deliver(const unsigned char* data, ssize_t count) const;

    static constexpr std::size_t kReadChunk = 3000;

    ReaderThread reader;
    int threadPriority = 4;  // recorded only
    GReadCallback readCallback = nullptr;
    void* callbackContext = nullptr;
};

// A record over one character device.
struct NodeRecord : TransportRecord {
    ~NodeRecord() override { NodeRecord::Close(); }
    [[nodiscard]] bool IsOpen() const override { return descriptor != -1; }
    void Close() override;
    // Reads and delivers; errors and zero-length reads are tried again at once.
    void Read() override;
    [[nodiscard]] bool CanWrite() const override { return descriptor != -1; }
    ssize_t Write(const void* data, int count) override;

    // Opens `path` with the given flags of open(2).
    bool OpenNode(const std::string& path, int flags);

    std::string devicePath;
    std::atomic<int> descriptor{-1};  // set and closed by the owner; also read by reader and writer
};

// Threads as in GDeviceIO. A device object serves one open: when it is opened again after a close
// it opens its descriptors but no longer reads.
class GTransportDevice : public GDeviceIO {
  public:
    // Opens what the device's own port reference names (the argument is ignored) and starts the
    // reader. -1 without a read callback or its context. A reader that cannot be started is no
    // failure: the device is open and delivers nothing.
    int OSOpen(const GPortRef* port) override;

    // -1 when the reader did not end within about 2 s; the descriptors are closed nevertheless.
    int OSClose() override;

    // Writes the bytes with one system call, whose result goes into `*count`; -1 unless all were
    // written. Without a descriptor to write to: -1, and `*count` keeps its value.
    int OSWrite(const void* data, int* count) override;

    // The same without the device mutex.
    int OSWriteUnlocked(const void* data, int* count) override;

    // Closes what is still open and frees the record.
    void OSUninitialize() override;

    // No transport implements these: 0, -1 and -1.
    int OSQuery() override;
    int OSRead(std::intptr_t a, std::intptr_t b, std::intptr_t c) override;
    int OSPurge() override;

  protected:
    // The module, lines and texts of a transport's reports.
    struct Reports {
        const char* module;
        int openFailedLine;
        const char* closeFailedText;
        int closeFailedLine;
        int closeGuardLine;
        int writeGuardLine;
    };

    GTransportDevice(const GPortRef* port, const Reports& reports_)
        : GDeviceIO(port), reports(reports_) {}

    // The private record; null before OSInitialize and after OSUninitialize.
    [[nodiscard]] TransportRecord* Record() const {
        return static_cast<TransportRecord*>(osData.get());
    }
    void SetRecord(std::shared_ptr<TransportRecord> record) { osData = std::move(record); }

    // Stops the reader and closes the record; -1, with a line, when the reader did not end.
    int CloseRecord();

  private:
    int OpenRecord();

    const Reports reports;
};

}  // namespace vexa
