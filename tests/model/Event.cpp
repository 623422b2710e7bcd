#include "model/Event.h"

#include <algorithm>
#include <array>

#include "support/HostPackets.h"

namespace vexa::test {

namespace {

constexpr std::size_t kMostEvents = 60;

class Maker {
  public:
    explicit Maker(std::uint32_t number) : random(number) {}

    Sequence Make() {
        Sequence sequence;
        // Half of the sequences start with a session, so that more than chance gets far.
        if (OneIn(2)) {
            sequence.push_back({EventKind::kHostSends, InitialSync() + OpenController(OneIn(2))});
            sequence.push_back({EventKind::kPasses, {}, 3});
        }
        const std::size_t events = 1 + Below(kMostEvents);
        while (sequence.size() < events) {
            sequence.push_back(MakeEvent());
            if (OneIn(2)) sequence.push_back({EventKind::kPasses, {}, 1 + Below(6)});
        }
        return sequence;
    }

  private:
    std::uint32_t Below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    }
    bool OneIn(std::uint32_t chance) { return Below(chance) == 0; }
    std::uint8_t Byte() { return static_cast<std::uint8_t>(Below(256)); }
    Bytes Random(std::size_t size) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = Byte();
        return bytes;
    }

    Event MakeEvent() {
        switch (Below(20)) {
            case 0:
                return {EventKind::kLink, {}, Below(2)};
            case 1:
                return {EventKind::kDevice, {}, Below(12), OneIn(3) ? 0U : 1U};
            case 2:
                return Switch();
            case 3:
            case 4:
                return {EventKind::kAnswer, {}, Below(3), Below(6), static_cast<int>(Below(4)) - 1};
            case 5:
            case 6:
            case 7:
                return {EventKind::kStreamSends, Block(), Below(12)};
            default:
                return {EventKind::kHostSends, FromHost()};
        }
    }

    Event Switch() {
        static constexpr std::array kSwitches = {EventKind::kStreamsOpen, EventKind::kWritesSucceed,
                                                 EventKind::kPlainOpens,
                                                 EventKind::kCommandsSucceed};
        const std::uint32_t which = Below(kSwitches.size() + 3);
        if (which < kSwitches.size()) return {kSwitches[which], {}, OneIn(3) ? 0U : 1U};
        return {EventKind::kAnswersAtOnce,
                {},
                OneIn(4) ? 0U : 1U,
                1 + Below(4),
                static_cast<int>(Below(4)) - 1};
    }

    // What a device or the DAQ sends.
    Bytes Block() {
        switch (Below(5)) {
            case 0:
                return Random(8);
            case 1:
                return Random(230 + Below(40));
            case 2:
                return Maimed(Packet(0xA0, Below(40)));
            default:
                return Random(1 + Below(40));
        }
    }

    Bytes Packet(std::uint8_t type, std::size_t payload) {
        const Bytes header = {type, static_cast<std::uint8_t>(payload + 4), Byte(), 0};
        return Sealed(header + Random(payload));
    }

    Bytes FromHost() {
        Bytes bytes = OneIn(4) ? Maimed(Request()) : Request();
        while (OneIn(3)) bytes = bytes + Request();
        return bytes;
    }

    Bytes Maimed(Bytes bytes) {
        if (bytes.empty()) return Random(1);
        switch (Below(3)) {
            case 0:
                bytes.resize(Below(static_cast<std::uint32_t>(bytes.size() + 1)));
                break;
            case 1:
                bytes[Below(static_cast<std::uint32_t>(bytes.size()))] ^=
                    static_cast<std::uint8_t>(1U << Below(8));
                break;
            default:
                bytes = Random(1 + Below(12)) + bytes;
        }
        return bytes;
    }

    Bytes Request() {
        const std::uint32_t id = OneIn(8) ? kControllerId : Below(13);
        switch (Below(16)) {
            case 0:
                return InitialSync();
            case 1:
                return OpenController(OneIn(3));
            case 2:
                return OneIn(2) ? OpenChild(kControllerId, "Controller")
                                : ToController(static_cast<std::uint8_t>(0x6E + Below(9)),
                                               Random(Below(30)));
            case 3:
            case 4:
            case 5:
            case 6:
                return OpenChild(id, Name());
            case 7:
            case 8:
                return CloseChild(id);
            case 9:
                return ToController(0x73, {});
            case 10:
                return ToController(0x74, {});
            case 11:
                return Packet(static_cast<std::uint8_t>(0x40 + Below(32)),
                              OneIn(4) ? 246 + Below(6) : Below(30));
            case 12:
                return Packet(Byte(), Below(252));
            case 13:
                return Random(Below(30));
            default:
                return Tunnel(id, Random(OneIn(4) ? Below(248) : Below(24)), Byte());
        }
    }

    std::string Name() {
        if (OneIn(20)) return std::string(200 + Below(30), 'n');
        return std::string(1, static_cast<char>('a' + Below(14)));  // two of no type
    }

    std::mt19937 random;
};

std::string KindName(EventKind kind) {
    static constexpr std::array kNames = {"host sends",       "passes",         "stream sends",
                                          "answer",           "link",           "device",
                                          "streams open",     "writes succeed", "plain opens",
                                          "commands succeed", "answers at once"};
    return kNames.at(static_cast<std::size_t>(kind));
}

}  // namespace

Sequence MakeSequence(std::uint32_t number) { return Maker(number).Make(); }

std::string Text(const Sequence& sequence) {
    std::string text;
    for (const Event& event : sequence) {
        text += "  " + KindName(event.kind) + " " + std::to_string(event.number) + " " +
                std::to_string(event.command) + " " + std::to_string(event.response) + "  " +
                ToHex(event.bytes) + "\n";
    }
    return text;
}

}  // namespace vexa::test
