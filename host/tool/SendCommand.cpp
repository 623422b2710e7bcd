#include "SendCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>

#include "DeviceData.h"
#include "Interrupt.h"
#include "Number.h"
#include "vexahost/protocol/Packet.h"

namespace {

using vexahost::Client;
using vexahost::Direction;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;
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

// Prints packets of the unit from the moment that it is told to.
class AnswerPrinter {
  public:
    explicit AnswerPrinter(bool asJson) : json(asJson) {}

    void Begin() {
        const std::lock_guard lock(mutex);
        start = Clock::now();
    }

    // Called on the client's threads.
    void Take(Direction direction, std::span<const std::uint8_t> packet) {
        const std::lock_guard lock(mutex);
        if (direction != Direction::kFromUnit || !start) return;
        ++count;
        const double seconds = std::chrono::duration<double>(Clock::now() - *start).count();
        const std::string words = vexahost::DescribePacket(direction, packet);
        const std::string hex = vexahost::HexText(packet, packet.size());
        if (json) {
            const nlohmann::json line = {{"time_s", seconds}, {"packet", hex}, {"words", words}};
            std::printf("%s\n", line.dump().c_str());
        } else {
            std::printf("%8.3f s  %-40s  %s\n", seconds, words.c_str(), hex.c_str());
        }
        std::fflush(stdout);
    }

    [[nodiscard]] std::size_t Count() {
        const std::lock_guard lock(mutex);
        return count;
    }

  private:
    const bool json;
    std::mutex mutex;  // guards all below
    std::optional<Clock::time_point> start;
    std::size_t count = 0;
};

Expected<Done> OpenTarget(Client& client, const SendOptions& options) {
    if (options.device.empty()) return Done{};
    auto opened = client.OpenController(kControllerId, false);
    if (opened) opened = client.OpenDevice(options.device, kFirstDeviceId);
    if (opened && options.arm) opened = client.Send(kFirstDeviceId, HidInitRequest());
    return opened;
}

Expected<Done> SendBytes(Client& client, const SendOptions& options, Bytes bytes) {
    if (!options.device.empty()) return client.Send(kFirstDeviceId, bytes);
    if (options.seal) {
        if (bytes.size() < vexa::kPacketHeaderSize || bytes[vexa::kLengthOffset] != bytes.size()) {
            return vexahost::Error{
                ErrorKind::kInvalidArgument,
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
    vexahost::ClientOptions clientOptions;
    clientOptions.tap = [&](Direction direction, std::span<const std::uint8_t> packet) {
        printer.Take(direction, packet);
    };
    auto client = ConnectAndSync(options.unit, clientOptions);
    if (!client) return ReportError(client.Failure());
    if (const auto open = OpenTarget(**client, options); !open) return ReportError(open.Failure());
    CatchInterrupts();
    printer.Begin();
    if (const auto sent = SendBytes(**client, options, *bytes); !sent) {
        return ReportError(sent.Failure());
    }
    WaitInterruptibly(Clock::now() + options.duration.value_or(kDefaultWait));
    if (const auto error = (*client)->LinkError()) return ReportError(*error);
    if (printer.Count() > 0) return kExitDone;
    return ReportError({ErrorKind::kTimeout, "nothing came back"});
}

}  // namespace

void AddSendCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "send", "Send bytes, as they are or to a device, and print the packets that come back");
    const auto options = std::make_shared<SendOptions>();
    AddUnitOptions(*command, options->unit);
    command->add_option("HEX", options->hex, "the bytes, two digits each")
        ->required()
        ->expected(1, 300)
        ->option_text(" ");
    command->add_option("--to", options->device, "open this device and tunnel the bytes to it")
        ->option_text("NAME");
    command->add_flag("--arm", options->arm,
                      "send the device, a HID sensor, its init request first");
    command->add_flag("--seal", options->seal, "put the packet's checksum right before it is sent");
    AddDurationOption(*command, "--for", options->duration, "how long to wait for answers (1s)");
    command->add_flag("--json", options->json,
                      "a JSON object for each packet: time_s, packet (hex), words");
    command->footer(
        "All packets are printed; a unit whose last host left less than half a second ago may not\n"
        "have noticed, and still sends what that host had opened.\n"
        "Examples: vexa-host send --to Accelerometer 01 02 03 04\n"
        "          vexa-host send --seal 40 06 07 00 33 44\n"
        "Exit code 3 when nothing came back; the others: vexa-host --help.");
    OnChosen(*command, exitCode, [options] { return RunSend(*options); });
}
