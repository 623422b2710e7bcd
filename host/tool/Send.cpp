#include <cstdio>

#include "foundation/Mutex.h"
#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/JsonObject.h"
#include "tool/Parse.h"
#include "tool/Samples.h"
#include "tool/Verbs.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost::tool {

namespace {

using vexa::Mutex;
using vexa::MutexLock;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

struct SendOptions {
    UnitAddress unit;
    std::vector<std::string> hex;
    std::string device;  // the bytes are tunnelled to it; empty: they go out as they are
    bool arm = false;
    bool seal = false;
    bool json = false;
    std::optional<Milliseconds> duration;
};

// Prints the packets of the unit that come after Begin. Any thread.
class AnswerPrinter {
  public:
    explicit AnswerPrinter(bool asJson) : json(asJson) {}

    void Begin() {
        const MutexLock lock(mutex);
        start = Clock::now();
    }

    void Print(Direction direction, std::span<const std::uint8_t> packet) {
        const MutexLock lock(mutex);
        if (direction != Direction::kFromUnit || !start) return;
        ++count;
        const double seconds = std::chrono::duration<double>(Clock::now() - *start).count();
        const std::string words = DescribePacket(direction, packet);
        const std::string hex = HexText(packet, packet.size());
        if (json) {
            JsonObject().Add("packet", hex).Add("time_s", seconds).Add("words", words).PrintLine();
        } else {
            std::printf("%8.3f s  %-40s  %s\n", seconds, words.c_str(), hex.c_str());
        }
        std::fflush(stdout);
    }

    [[nodiscard]] std::size_t Count() {
        const MutexLock lock(mutex);
        return count;
    }

  private:
    const bool json;
    Mutex mutex;
    std::optional<Clock::time_point> start VEXA_GUARDED_BY(mutex);
    std::size_t count VEXA_GUARDED_BY(mutex) = 0;
};

Expected<Done> OpenTarget(Client& client, const SendOptions& options) {
    if (options.device.empty()) return Done{};
    auto opened = client.OpenController(kControllerId, false);
    if (opened) opened = OpenDevice(client, options.unit, options.device, kFirstDeviceId);
    if (opened && options.arm) opened = client.Send(kFirstDeviceId, HidInitRequest());
    return opened;
}

Expected<Done> SendBytes(Client& client, const SendOptions& options, Bytes bytes) {
    if (!options.device.empty()) return client.Send(kFirstDeviceId, bytes);
    if (options.seal) {
        if (bytes.size() < vexa::kPacketHeaderSize || bytes[vexa::kLengthOffset] != bytes.size()) {
            return Error{ErrorKind::kInvalidArgument,
                         "--seal: the bytes are not one packet whose byte 1 is its length"};
        }
        vexa::SealPacket(bytes);
    }
    return client.SendRaw(bytes);
}

ExitCode RunSend(const SendOptions& options) {
    constexpr Milliseconds kDefaultWait{1000};
    const auto bytes = ParseHex(options.hex);
    if (!bytes) {
        return ReportError({ErrorKind::kInvalidArgument,
                            "expected bytes in hex, two digits each, such as: 40 05 01 46"});
    }
    AnswerPrinter printer(options.json);
    ClientOptions clientOptions;
    clientOptions.tap = [&](Direction direction, std::span<const std::uint8_t> packet) {
        printer.Print(direction, packet);
    };
    auto client = ConnectAndSync(options.unit, clientOptions);
    if (!client) return ReportError(client.error());
    if (const auto open = OpenTarget(**client, options); !open) return ReportError(open.error());
    printer.Begin();
    if (const auto sent = SendBytes(**client, options, *bytes); !sent) {
        return ReportError(sent.error());
    }
    WaitInterruptibly(Clock::now() + options.duration.value_or(kDefaultWait));
    if (const auto error = (*client)->LinkError()) return ReportError(*error);
    if (printer.Count() > 0) return kExitDone;
    return ReportError({ErrorKind::kTimeout, "nothing came back"});
}

}  // namespace

Verb SendVerb() {
    const auto options = std::make_shared<SendOptions>();
    return {
        .name = "send",
        .summary = "Send bytes, as they are or to a device, and print the packets that come back",
        .options = WithUnitOptions(
            options->unit,
            {{"HEX", " ", "the bytes, two digits each", WordList{&options->hex, 300}, true},
             {"--to", "NAME", "open this device and tunnel the bytes to it", &options->device},
             {"--arm", "", "send the init request first, for a HID sensor", &options->arm},
             {"--seal", "", "correct the packet's checksum before sending", &options->seal},
             {"--for", "TIME", "how long to wait for answers (1s)", &options->duration},
             {"--json", "", "a JSON object for each packet: time_s, packet (hex), words",
              &options->json}}),
        .notes =
            "All packets are printed; a unit whose last host left less than half a second ago may "
            "not\n"
            "have noticed, and still sends what that host had opened.\n"
            "Examples: vexa-host send --to Accelerometer 01 02 03 04\n"
            "          vexa-host send --seal 40 06 07 00 33 44\n"
            "Exit code 3 when nothing came back; the others: vexa-host --help.",
        .run = [options] { return RunSend(*options); }};
}

}  // namespace vexahost::tool
