// Steps of the demo about the unit, its cable and its controller.
#include <thread>

#include "../Connection.h"
#include "../DeviceData.h"
#include "../Interrupt.h"
#include "Demo.h"
#include "vexahost/SocketTransport.h"
#include "vexahost/protocol/InitialSync.h"

using vexahost::Client;
using vexahost::ClientOptions;
using vexahost::Direction;
using vexahost::Milliseconds;
using vexahost::SocketTransport;

namespace {

constexpr Milliseconds kConnectTimeout{5000};
constexpr Milliseconds kEndTimeout{5000};
constexpr const char* kPluggedIn = "USB gadget cable is plugged in.";
constexpr const char* kUnplugged = "USB gadget cable is unplugged.";

}  // namespace

void Demo::StartUnit() {
    std::string words;
    for (const std::string& word : command) words += (words.empty() ? "" : " ") + word;
    console.Line(Style::kDim, "    $ ", words);
    auto started = UnitProcess::Start(command);
    if (!started) return Fail("the unit to start", started.Failure().message);
    unit = std::move(*started);
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
    if (!transport) return Fail("a host socket to connect to", transport.Failure().message);
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
        Expect(*holds, "result 1 (the application holds it)", "result 0");
    }
    Show({}, {"criCommand(\"DAQ\", 3, 1000)", "criAnswer(\"DAQ\", 3, 1)"});
}

void Demo::TakeDaqOver() {
    {
        const std::lock_guard lock(trafficMutex);
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
    ExpectValue(client->Send(child, HidInitRequest()), "the request to be sent");
    Show({"Input from Host - Discarding orphaned tunnel packet.: "}, {});
    if (failure.empty()) Note(name + " went with the cable: its id is unknown now");
    const auto statistics = client->Statistics();
    Expect(statistics.strayPackets == 0, "no data of a closed child",
           std::to_string(statistics.strayPackets) + " packets");
}

void Demo::EndUnit() {
    if (client) client->Close();
    unit->Terminate();
    const auto status = unit->Wait(kEndTimeout);
    unit->Log().WaitForEnd(kEndTimeout);
    Show({"VEXADevMgr(130) : VEXADevMgr is shutting down."}, {});
    Expect(status == 0, "exit status 0",
           status ? "exit status " + std::to_string(*status) : "a unit that goes on running");
    if (status) Note("exit status " + std::to_string(*status));
}
