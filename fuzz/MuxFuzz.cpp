// The whole multiplexer: any bytes and packets from the host, mixed with any data of devices and
// DAQ, answers of applications and failing libraries. Stated: what goes to the host parses as
// packets with the right checksum (but for the DAQ's own); no child beyond ten; and whatever came
// before, an initial sync is answered exactly, or reaches the DAQ unchanged while its link is open.
#include <cstring>
#include <iterator>

#include "Input.h"
#include "Require.h"
#include "mux/HostMux.h"
#include "protocol/Packet.h"
#include "support/HostPackets.h"
#include "support/QueuedHostLink.h"
#include "support/ScriptedLibraries.h"
#include "vexahost/PacketReader.h"

namespace {

using namespace vexa;
using namespace vexa::test;

const std::uint32_t kLibrary = 9;
constexpr std::size_t kMaxChildren = 10;
constexpr std::size_t kRoomInOutput = 50000;

class Unit {
  public:
    Unit() {
        ScriptedLibraries::Reset();
        script.types = {{"s", 8}, {"t", 9}, {"u", 11}, {"h", 2}, {"i", 3}, {"j", 4}, {"x", 7}};
        script.attached = {{8, "s"}, {9, "t"}, {11, "u"}, {2, "h"}, {3, "i"}, {5, "daq"}, {7, "x"}};
        script.daqAnswer = DaqSyncAnswer();
        script.answers = {{1, 1}, {2, 1}, {3, 1}, {4, 1}};
        sessions.Init();
        REQUIRE(mux.Init());
        mux.MarkConnected();
    }

    void Do(Input& input) {
        const std::uint8_t what = input.Byte();
        switch (what % 8) {
            case 0:
                return Pass(input.Bytes(input.Byte()));
            case 1:
                return Pass(AsPacket(input.Bytes(input.Byte())));
            case 2:
                return Pass(ToController(static_cast<std::uint8_t>(0x70 + input.Byte() % 8),
                                         input.Bytes(input.Byte() % 64)));
            case 3:
                return Pass(
                    OpenChild(input.Byte() % 16U, std::string(1, "stuhijx?"[input.Byte() % 8])));
            case 4:
                return FromStream(input);
            case 5:
                return Answer(input);
            case 6:
                script.streamsOpen = (what & 8U) == 0;
                script.writesSucceed = (what & 16U) == 0;
                script.commandResult = (what & 32U) == 0 ? 1 : 0;
                return;
            default:
                if ((what & 8U) != 0) script.answers.clear();
                return Pass({});
        }
    }

    void Check() {
        REQUIRE(mux.Children().Count() <= kMaxChildren);
        CheckOutput();
    }

    // A packet that was still coming may be completed by the sync's first bytes, and be answered,
    // or open the DAQ link, before it.
    void CheckSync() {
        const Bytes sync = InitialSync();
        link.TakeBytes();
        script.writes.clear();
        script.writesSucceed = true;
        const bool toDaq = daq.IsOpen();
        Pass(sync);
        const bool answered =
            link.Take().find(
                "b8 1a 00 e9 1a 07 55 aa 56 a9 57 a8 58 a7 59 a6 5a a5 5b a4 5c a3 5d "
                "a2 5e a1") != std::string::npos;
        const bool forwarded = std::ranges::any_of(script.writes, [&](const std::string& write) {
            return write.ends_with(": " + ToHex(sync));
        });
        REQUIRE(toDaq ? forwarded : answered || (forwarded && daq.IsOpen()));
    }

  private:
    // What is too short to be a packet goes as it is.
    static Bytes AsPacket(Bytes bytes) {
        if (bytes.size() < kPacketHeaderSize) return bytes;
        bytes[kLengthOffset] = static_cast<std::uint8_t>(bytes.size());
        SealPacket(bytes);
        return bytes;
    }

    void Pass(const Bytes& bytes) {
        link.HostSends(bytes);
        do {
            mux.Pass();
            sessions.Poll();
        } while (HostLink_BytesAvailable() != 0);
    }

    void FromStream(Input& input) {
        const std::size_t which = input.Byte();
        const Bytes block = input.Bytes(input.Byte());
        if (script.streams.empty() || block.empty()) return;
        const auto stream =
            std::next(script.streams.begin(), static_cast<long>(which % script.streams.size()));
        const bool fromDaq = stream->second.device == "daq";
        script.Send(stream->first, block);
        // The DAQ's bytes go on as they are, so nothing behind them need be cut right.
        if (fromDaq) link.TakeBytes();
    }

    void Answer(Input& input) {
        static constexpr const char* kNames[] = {"DAQ", "SPLASH", "FGEN"};
        const std::uint8_t who = input.Byte();
        script.Answer(kNames[who % 3], input.Byte() % 6U, static_cast<std::int8_t>(input.Byte()));
    }

    void CheckOutput() {
        const Bytes bytes = link.TakeBytes();
        REQUIRE(bytes.size() < kRoomInOutput);
        if (daq.IsOpen()) return;  // measurements come between
        vexahost::PacketReader reader;
        std::span<const std::uint8_t> rest = bytes;
        std::size_t cut = 0;
        while (const auto packet = reader.Next(rest)) {
            REQUIRE(packet->checksumRight);
            cut += packet->bytes.size();
        }
        REQUIRE(!reader.IsViolated());
        REQUIRE(cut == bytes.size());
    }

    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    DAQIO daq{kLibrary};
    AppSessions sessions;
    HostMux mux{kLibrary, daq, sessions};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Unit unit;
    Input input(data, size);
    while (!input.IsEmpty()) {
        unit.Do(input);
        unit.Check();
    }
    unit.CheckSync();
    return 0;
}
