// Steps of the demo about the unit, its cable and its controller.
#include <algorithm>
#include <cstdio>
#include <thread>

#include "tool/Connection.h"
#include "tool/Exit.h"
#include "tool/Figures.h"
#include "tool/Samples.h"
#include "tool/demo/Demo.h"
#include "vexahost/Requests.h"
#include "vexahost/SocketTransport.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost::tool {

namespace {

constexpr Milliseconds kConnectTimeout{5000};
constexpr Milliseconds kUnitEndTimeout{5000};
constexpr const char* kPluggedIn = "USB gadget cable is plugged in.";
constexpr const char* kUnplugged = "USB gadget cable is unplugged.";

}  // namespace

void Demo::StartUnit() {
    std::string words;
    for (const std::string& word : command) words += (words.empty() ? "" : " ") + word;
    console.Line(Style::kDim, "    $ ", words);
    vexa::testkit::ProcessCall call;
    call.command = command;
    call.ownGroup = true;
    call.withoutInput = true;
    call.deathSignal = SIGTERM;
    try {
        unit.emplace(call);
    } catch (const std::system_error& error) {
        return Fail("the unit to start", error.what());
    }
    Show({"VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.",
          "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version "},
         {});
}

void Demo::Connect() {
    constexpr Milliseconds kRetry{20};
    const auto deadline = std::chrono::steady_clock::now() + kConnectTimeout;
    auto transport = SocketTransport::ConnectUnit(directory);
    while (!transport && std::chrono::steady_clock::now() < deadline && !IsInterrupted()) {
        std::this_thread::sleep_for(kRetry);
        transport = SocketTransport::ConnectUnit(directory);
    }
    if (!transport) return Fail("a host socket to connect to", transport.error().message);
    ClientOptions options;
    options.tap = [this](Direction direction, std::span<const std::uint8_t> packet) {
        OnPacket(direction, packet);
    };
    client = std::make_unique<Client>(std::move(*transport), options);
    Show({kPluggedIn}, {});
}

void Demo::PlugIn() { Connect(); }

void Demo::Synchronise() {
    const std::uint8_t sequence = client->NextSequence();
    const auto reply = client->InitialSync();
    if (ExpectValue(reply, "an initial-sync reply")) {
        const int echoed = (*reply)[vexa::kInitialSyncReplySequenceOffset];
        Expect(echoed == sequence, "our sequence number " + std::to_string(sequence),
               std::to_string(echoed));
    }
    Show({"Input from Host - INIT: "}, {});
    Note(
        "found byte by byte wherever it stands; what was received before it is dropped (PRE_INIT)");
}

void Demo::OpenController() {
    ExpectValue(client->OpenController(kControllerId, false), "the controller to open");
    Show({}, {});
}

void Demo::QueryDaq() {
    const auto holds = client->QueryDaqApplication();
    if (ExpectValue(holds, "an answer")) {
        Expect(*holds == DaqApplication::kHoldsHardware, "result 1 (the application holds it)",
               "result 0");
    }
    Show({}, {"criCommand(\"DAQ\", 3, 1000)", "criAnswer(\"DAQ\", 3, 1)"});
}

void Demo::TakeDaqOver() {
    {
        const vexa::MutexLock lock(trafficMutex);
        daqPacketsToShow = 3;
    }
    ExpectValue(client->TakeDaqOver(), "the DAQ");
    for (int packets = 0; packets < 3; ++packets) {
        const auto packet = client->ReceiveDaq(Client::kDefaultTimeout);
        if (!ExpectValue(packet, "DAQ packets")) break;
        Expect(packet->checksumRight, "a right checksum", "a wrong one");
    }
    Show({"DAQIO(113) : DAQ successfully replied to initial sync VEXA_CMD_ID_INIT."},
         {"criCommand(\"DAQ\", 3, 1000)", "criCommand(\"DAQ\", 2, 10000)",
          "VEXA_Device_Stream_Open(", "criCommand(\"SPLASH\", 1, 1000)", "criAnswer(\"SPLASH\", 1",
          "criCommand(\"FGEN\", 4, 1000)", "criAnswer(\"FGEN\", 4"});
}

void Demo::CloseController() {
    ExpectValue(client->CloseController(), "the controller to close");
    Show({"DAQIO(141) : Init during DAQ close succeeded."},
         {"VEXA_Device_Stream_Close(", "criCommand(\"SPLASH\", 2, 1000)", "criAnswer(\"SPLASH\", 2",
          "criCommand(\"DAQ\", 1, 1000)", "criAnswer(\"DAQ\", 1"});
}

void Demo::PullCable() {
    ExpectValue(client->OpenController(kControllerId, false), "the controller to open");
    Show({}, {});
    OpenDevice("Accelerometer");
    Note("the host leaves without closing anything");
    client->Close();
    Show({kUnplugged}, {"VEXA_Device_Stream_Close("});
}

void Demo::PlugInAgain() {
    client.reset();
    Connect();
    if (!client) return;
    Synchronise();
    if (children.empty()) return;
    // Echoed if the child were still there; it must not be.
    const auto [name, child] = children.back();
    children.clear();
    const auto request = BuildTunnel(child, client->NextSequence(), HidInitRequest());
    ExpectValue(client->SendRaw(request->Bytes()), "the request to be sent");
    Show({"Input from Host - Discarding orphaned tunnel packet.: "}, {});
    if (failure.empty()) Note(name + " went with the cable: its id is unknown now");
    const auto statistics = client->Statistics();
    Expect(statistics.strayPackets == 0, "no data of a closed child",
           std::to_string(statistics.strayPackets) + " packets");
}

void Demo::EndUnit() {
    if (client) client->Close();
    unit->Signal(SIGTERM);
    const auto status = unit->Wait(kUnitEndTimeout);
    unit->Log().WaitForEnd(kUnitEndTimeout);
    Show({"VEXADevMgr(130) : VEXADevMgr is shutting down."}, {});
    Expect(status == 0, "exit status 0",
           status ? "exit status " + std::to_string(*status) : "a unit that goes on running");
    if (status) Note("exit status " + std::to_string(*status));
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr Milliseconds kReadFor{3000};
constexpr Milliseconds kPaceWait{20};
constexpr int kEchoes = 20;
constexpr ChildId kUnknownChild = 0x2A2A;
constexpr int kMostChildren = 10;  // the controller included

std::string Text(std::uint64_t value) { return std::to_string(value); }

// The first block of a child for which `wanted` holds; all others are dropped.
template <typename Wanted>
Expected<Block> ReceiveUntil(Client& client, ChildId child, Wanted wanted) {
    const auto deadline = Clock::now() + Client::kDefaultTimeout;
    for (;;) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        auto block = client.Receive(child, std::max(left, Milliseconds{0}));
        if (!block || wanted(*block)) return block;
    }
}

std::string TimeText(Clock::duration time) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms",
                  std::chrono::duration<double, std::milli>(time).count());
    return text;
}

}  // namespace

void Demo::OpenDevice(const std::string& name) {
    const ChildId child = nextChild++;
    if (ExpectValue(client->OpenDevice(name, child), name + " to open")) {
        children.emplace_back(name, child);
    }
    Show({}, {"VEXA_Device_Stream_Open("});
}

void Demo::OpenSensors() {
    for (const char* name : {"Accelerometer", "Microphone", "Thermometer"}) OpenDevice(name);
    if (children.size() != 3) return;
    Note("a HID sensor is silent until it has answered its init request");
    const ChildId thermometer = children.back().second;
    ExpectValue(client->Send(thermometer, HidInitRequest()), "the request to be sent");
    ExpectValue(ReceiveUntil(*client, thermometer,
                             [](const Block& block) { return IsHidInitResponse(block.bytes); }),
                "an init response");
    Show({"Tarn Init Response "}, {});
}

void Demo::ReadSensors() {
    std::vector<std::string> names;
    for (const auto& [name, child] : children) names.push_back(name);
    names.emplace_back("DAQ");
    const std::size_t daq = children.size();

    const auto takeAll = [&](auto&& use) {
        for (std::size_t i = 0; i < children.size(); ++i) {
            const Milliseconds wait = i == 0 ? kPaceWait : Milliseconds{0};
            while (const auto block = client->Receive(children[i].second, wait)) {
                use(i, block->bytes);
                if (i == 0) break;  // the first one sets the pace
            }
        }
        while (const auto packet = client->ReceiveDaq(Milliseconds{0})) use(daq, packet->bytes);
    };
    std::vector<std::uint64_t> counts(names.size());
    takeAll([](std::size_t, const std::vector<std::uint8_t>&) {});  // what came before
    StreamTable table(console, names);
    const auto end = Clock::now() + kReadFor;
    while (Clock::now() < end && !IsInterrupted() && !client->LinkError()) {
        takeAll([&](std::size_t device, const std::vector<std::uint8_t>& bytes) {
            table.Add(device, bytes);
            ++counts[device];
        });
        table.Update(Clock::now());
    }
    table.Finish(Clock::now());

    for (std::size_t i = 0; i < names.size(); ++i) {
        Expect(counts[i] > 0, "data from " + names[i], "none");
        if (i == daq) continue;
        const auto statistics = client->StatisticsOf(children[i].second);
        if (!statistics) continue;
        Expect(statistics->sequenceGaps == 0, "every packet of " + names[i],
               Text(statistics->sequenceGaps) + " gaps in the sequence numbers");
        Expect(statistics->dropped == 0, "no block dropped", Text(statistics->dropped));
    }
    if (failure.empty() && !IsInterrupted()) Note("no gap in the sequence numbers of any sensor");
}

void Demo::MeasureEcho() {
    if (children.empty()) return Fail("an open sensor", "none");
    const ChildId child = children.front().second;
    std::vector<Clock::duration> times;
    for (int i = 0; i < kEchoes && !IsInterrupted(); ++i) {
        const std::vector<std::uint8_t> payload = {'e', 'c', 'h', 'o'};
        const auto request =
            BuildPacket(vexa::kClassCommand, static_cast<std::uint8_t>(i), payload);
        const auto start = Clock::now();
        if (!ExpectValue(client->Send(child, request->Bytes()), "the request to be sent")) break;
        const auto echo = ReceiveUntil(*client, child, [&](const Block& block) {
            return std::ranges::equal(block.bytes, request->Bytes());
        });
        if (!ExpectValue(echo, "an echo of the same bytes")) break;
        times.push_back(echo->receivedAt - start);
        const vexa::MutexLock lock(trafficMutex);
        showRequests = false;  // one of them is enough to see
    }
    Show({}, {});
    {
        const vexa::MutexLock lock(trafficMutex);
        showRequests = true;
    }
    if (times.empty()) return;
    std::ranges::sort(times);
    Note(Text(times.size()) + " echoes: fastest " + TimeText(times.front()) + ", median " +
         TimeText(times[times.size() / 2]) + ", slowest " + TimeText(times.back()));
}

void Demo::SendWrongChecksum() {
    auto packet = BuildControllerCommand(kControllerId, client->NextSequence(),
                                         vexa::ControllerCommand::kQueryDaqApplication);
    ++packet.Bytes()[vexa::kChecksumOffset];
    ExpectValue(client->SendRaw(packet.Bytes()), "the packet to be sent");
    Show({"Input from Host - BAD CHECKSUM: "}, {});
    // The next request is answered, and its answer is the only one.
    const auto before = client->Statistics().strayReplies;
    const auto holds = client->QueryDaqApplication();
    if (ExpectValue(holds, "an answer to the right packet")) {
        Expect(*holds == DaqApplication::kHoldsNothing, "result 0 (the host holds the hardware)",
               "result 1");
    }
    Expect(client->Statistics().strayReplies == before, "no answer to the wrong packet", "one");
    Show({}, {"criAnswer(\"DAQ\", 3"});
}

void Demo::SendToUnknownChild() {
    ExpectValue(client->SendRaw(
                    BuildTunnel(kUnknownChild, client->NextSequence(), HidInitRequest())->Bytes()),
                "the packet to be sent");
    Show({"Input from Host - Discarding orphaned tunnel packet.: "}, {});
}

void Demo::OpenUnsupported() {
    ExpectRefusal(client->OpenDevice("Camera", nextChild), nextChild, 54);
    Show({}, {});
}

void Demo::OpenTooMany() {
    const char* const names[] = {"Accelerometer", "Spectrometer", "Barometer", "LightMeter"};
    Note("a name stands for a type: the first device of that type is opened");
    for (std::size_t i = 0; children.size() + 1 < kMostChildren && failure.empty(); ++i) {
        OpenDevice(names[i % std::size(names)]);
    }
    if (!failure.empty()) return;
    ExpectRefusal(client->OpenDevice("Accelerometer", nextChild), nextChild, 50);
    Show({}, {});
}

void Demo::CloseChildren() {
    for (const auto& [name, child] : children) {
        ExpectValue(client->CloseDevice(child), name + " to close");
        Show({}, {"VEXA_Device_Stream_Close("});
    }
    children.clear();
}

}  // namespace vexahost::tool
