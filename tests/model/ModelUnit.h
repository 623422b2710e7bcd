// A small model of the service and its unit, written apart from the code under test and as plainly
// as the protocol allows: a byte at a time, everything by value, nothing shared with src/.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/Event.h"
#include "model/Outcome.h"

namespace vexa::test {

// 32-bit, little-endian.
inline std::uint32_t NumberAt(const Bytes& bytes, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = 4; i-- > 0;) number = number << 8U | bytes[at + i];
    return number;
}
inline Bytes NumberBytes(std::uint32_t number) {
    return {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8U),
            static_cast<std::uint8_t>(number >> 16U), static_cast<std::uint8_t>(number >> 24U)};
}

inline std::string DeviceName(std::uint32_t type) {
    return "device " + std::string(1, static_cast<char>('a' + type));
}

class ModelUnit {
  public:
    ModelUnit();

    Outcome Take(const Event& event);

  private:
    struct Child {
        std::uint32_t id = 0;
        bool isController = false;
        std::uint32_t stream = 0;
        std::uint8_t sequence = 0;
        bool armed = false;
        bool warned = false;
    };
    struct Stream {
        std::string device;
        enum { kBlocks, kReports, kDaq } kind = kBlocks;
        std::uint32_t id = 0;
    };
    struct Session {
        std::string name;
        int holder = 0;
        enum { kIdle, kAsked, kSent, kDone } state = kIdle;
        int command = 0;
        int time = 0;
        int response = 0;
        bool failed = false;
        bool warned = false;
        bool inFlight = false;
        bool answered = false;
        bool released = false;
    };

    void Pass();
    void FollowLink();
    void HandBack(Session& session, int holder, int command);

    bool TakeByte(std::uint8_t byte);
    void Route();
    void Reopen();
    void StepController();
    void OpenChild();
    void CloseChild();
    void AskDaq();
    void TakeOver();

    bool OpenDaq();
    void CloseDaq();
    void FromDaq(const Bytes& bytes);
    void CloseAll();
    void Disconnect();
    std::uint32_t OpenStream(const Stream& stream, int mode);
    void WriteStream(std::uint32_t stream, const Bytes& bytes);
    std::int32_t FromStream(const Stream& stream, const Bytes& bytes);

    static bool Ask(Session& session, int command, int time);
    void Poll(Session& session);
    void Answer(Session& session, int command, int response);

    void Dump(const std::string& tag, const Bytes& bytes);
    void Print(const std::string& line) { now.printed += line + "\n"; }
    void Send(const Bytes& packet);
    void Reply(std::uint8_t type, std::uint8_t command, std::uint8_t code);
    Child* Find(std::uint32_t id);

    // The unit.
    std::set<std::uint32_t> attached;
    bool streamsOpen = true;
    bool writesSucceed = true;
    bool plainOpens = true;
    bool commandsSucceed = true;
    std::map<int, int> answersAtOnce;
    std::map<std::uint32_t, Stream> streams;
    std::uint32_t lastHandle = 0;

    // The service.
    bool link = true;
    bool linkSeen = true;
    bool connected = false;
    std::deque<std::uint8_t> input;
    Bytes sinceSync;  // all bytes since the last initial sync
    Bytes partial;
    std::optional<Bytes> packet;  // with zeros behind it, 256 bytes
    std::uint8_t replyCounter = 0;
    std::vector<Child> children;
    enum { kIdle, kNew, kBusy } controller = kIdle;
    Bytes command;  // the inner packet
    int step = 0;
    std::uint8_t result = 0;
    std::array<Session, 3> sessions;
    Session& daqSession = sessions[0];
    Session& splash = sessions[1];
    Session& fgen = sessions[2];
    std::uint32_t daq = 0;  // its stream
    Bytes fromDaq;
    Bytes goodHeader;
    int daqErrors = 0;

    Outcome now;
};

}  // namespace vexa::test
