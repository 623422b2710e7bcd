#include "model/Event.h"

#include <array>
#include <random>

#include "support/HostPackets.h"

namespace vexa::test {

namespace {

using enum EventKind;

constexpr std::uint32_t kMostEvents = 60;

class Maker {
  public:
    explicit Maker(std::uint32_t seed) : random(seed) {}

    Sequence Make() {
        // Half of the sequences start with a session, and half with applications that answer:
        // chance alone seldom gets that far.
        if (OneIn(2)) Add({kHostSends, InitialSync() + OpenController(OneIn(2))}, 3);
        if (OneIn(2)) {
            for (std::uint32_t command = 1; command < 5; ++command) {
                Add({kAnswersAtOnce, {}, command, 1, Response()}, 0);
            }
        }
        for (std::uint32_t left = 1 + Below(kMostEvents); left > 0; --left) {
            Add(AnyEvent(), OneIn(2) ? 1 + Below(6) : 0);
        }
        return sequence;
    }

  private:
    std::uint32_t Below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    }
    bool OneIn(std::uint32_t chance) { return Below(chance) == 0; }
    std::uint8_t Byte() { return static_cast<std::uint8_t>(Below(256)); }
    std::uint32_t MostlyOn() { return OneIn(3) ? 0 : 1; }
    std::int32_t Response() { return static_cast<std::int32_t>(Below(4)) - 1; }
    Bytes Random(std::size_t size) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = Byte();
        return bytes;
    }
    void Add(Event event, std::uint32_t passes) {
        sequence.push_back(std::move(event));
        if (passes > 0) sequence.push_back({kPasses, {}, 0, passes});
    }

    Event AnyEvent() {
        if (OneIn(20)) return {kLink, {}, 0, Below(2)};
        if (OneIn(20)) return {kAttach, {}, Below(12), MostlyOn()};
        if (OneIn(30)) return {kWorks, {}, Below(5), MostlyOn()};
        if (OneIn(40)) return {kAnswersAtOnce, {}, 1 + Below(4), MostlyOn(), Response()};
        if (OneIn(10)) return {kAnswer, {}, Below(3), Below(6), Response()};
        if (OneIn(5)) return {kStreamSends, Block(), Below(12)};
        return {kHostSends, FromHost()};
    }

    // What a device or the DAQ sends.
    Bytes Block() {
        if (OneIn(5)) return Random(8);
        if (OneIn(5)) return Random(230 + Below(40));
        if (OneIn(2)) return Random(Below(40));
        Bytes packets;
        for (std::uint32_t left = Below(15); left > 0; --left) {
            const Bytes packet = Packet(0xA0, Below(left));
            packets = packets + (OneIn(2) ? Damaged(packet) : packet);
        }
        return packets;
    }

    Bytes Packet(std::uint8_t type, std::size_t payload) {
        const Bytes header = {type, static_cast<std::uint8_t>(payload + 4), Byte(), 0};
        return Sealed(header + Random(payload));
    }

    Bytes FromHost() {
        Bytes bytes = OneIn(4) ? Damaged(Request()) : Request();
        while (OneIn(3)) bytes = bytes + Request();
        return bytes;
    }

    // Cut short, preceded by noise, or with another bit, with a checksum that fits or does not.
    Bytes Damaged(Bytes packet) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        if (OneIn(4)) return Random(1 + Below(12)) + packet;
        if (OneIn(3) || size == 0) return Bytes(packet.begin(), packet.begin() + Below(size + 1));
        packet[Below(size)] ^= static_cast<std::uint8_t>(1U << Below(8));
        if (OneIn(3)) return packet;
        packet.resize(256);
        packet = Sealed(packet);
        packet.resize(size);
        return packet;
    }

    Bytes Request() {
        const std::uint32_t id = OneIn(8) ? kControllerId : Below(13);
        if (opensMany && !OneIn(4)) return OpenUnder(id, Name());
        switch (Below(14)) {
            case 0:
                return InitialSync(Byte());
            case 1:
                return OpenController(OneIn(3));
            case 2:
                return OpenUnder(kControllerId, OneIn(2) ? "Controller" : "ControlleR");
            case 3:
                return ToController(static_cast<std::uint8_t>(0x6E + Below(9)), Random(Below(30)));
            case 4:
                return CloseChild(id);
            case 5:
                return ToController(static_cast<std::uint8_t>(0x73 + Below(2)), {});
            case 6:
                return Packet(static_cast<std::uint8_t>(0x40 + Below(64)),
                              OneIn(2) ? 246 + Below(6) : Below(8));
            case 7:
                return Packet(Byte(), Below(252));
            case 8:
                return Random(Below(30));
            case 9:
            case 10:
                return Tunnel(id, Random(OneIn(4) ? Below(248) : Below(24)), Byte());
            default:
                return OpenUnder(id, Name());
        }
    }

    // One that stands for a type most of the time.
    std::string Name() {
        if (OneIn(20)) return kLongestName.substr(Below(2)) + (OneIn(3) ? "n" : "");
        return std::string(1, "bcdeijlm"[Below(8)]);
    }

    // Sometimes the length byte cuts the name, or it counts bytes beyond its end.
    Bytes OpenUnder(std::uint32_t id, std::string name) {
        const std::size_t length = name.size() + 1 + (OneIn(10) ? Below(3) : 0);
        if (OneIn(10)) name += "2";
        const Bytes rest(name.begin(), name.end());
        return ToController(0x70, Le32(id) + Bytes{static_cast<std::uint8_t>(length)} + rest +
                                      Bytes(OneIn(10) ? 0 : 1));
    }

    std::mt19937 random;
    const bool opensMany = OneIn(10);  // as many children as there may be
    Sequence sequence;
};

}  // namespace

Sequence MakeSequence(std::uint32_t seed) { return Maker(seed).Make(); }

void Apply(const Event& event, ScriptedLibraries& unit) {
    const bool on = event.number != 0;
    if (event.kind == kAttach) {
        unit.attached.erase(event.which);
        if (on) unit.attached[event.which] = DeviceName(event.which);
    } else if (event.kind == kAnswersAtOnce) {
        unit.answers.erase(event.which);
        if (on) unit.answers[event.which] = event.response;
    } else if (event.kind == kWorks && event.which == 0) {
        unit.commandResult = on ? 1 : 2;
    } else if (event.kind == kWorks) {
        bool* const kinds[] = {&unit.snapshotsOpen, &unit.streamsOpen, &unit.writesSucceed,
                               &unit.deviceOpens};
        *kinds[event.which - 1] = on;
    }
}

std::string Text(const Sequence& sequence) {
    static constexpr std::array kNames = {"host sends", "passes", "stream sends",    "answer",
                                          "link",       "attach", "answers at once", "works"};
    std::string text;
    for (const Event& event : sequence) {
        text += std::string("  ") + kNames.at(static_cast<std::size_t>(event.kind)) + " " +
                std::to_string(event.which) + " " + std::to_string(event.number) + " " +
                std::to_string(event.response) + "  " + ToHex(event.bytes) + "\n";
    }
    return text;
}

}  // namespace vexa::test
