// Steps of the demo about sensors, and about what the host does wrong.
#include <algorithm>
#include <cstdio>

#include "../DeviceData.h"
#include "../Interrupt.h"
#include "../StreamTable.h"
#include "Demo.h"
#include "vexahost/Requests.h"

using vexahost::Block;
using vexahost::ChildId;
using vexahost::Client;
using vexahost::Expected;
using vexahost::Milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr Milliseconds kReadFor{3000};
constexpr Milliseconds kPause{20};
constexpr int kEchoes = 20;
constexpr ChildId kUnknownChild = 0x2A2A;
constexpr int kMostChildren = 10;  // the controller included

std::string Number(std::uint64_t value) { return std::to_string(value); }

// Takes blocks of a child until `wanted` says that one is right, at most until the deadline.
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
            const Milliseconds wait = i == 0 ? kPause : Milliseconds{0};
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
               Number(statistics->sequenceGaps) + " gaps in the sequence numbers");
        Expect(statistics->dropped == 0, "no block dropped", Number(statistics->dropped));
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
            vexahost::BuildPacket(vexa::kClassCommand, static_cast<std::uint8_t>(i), payload);
        const auto start = Clock::now();
        if (!ExpectValue(client->Send(child, request->Bytes()), "the request to be sent")) break;
        const auto echo = ReceiveUntil(*client, child, [&](const Block& block) {
            return std::ranges::equal(block.bytes, request->Bytes());
        });
        if (!ExpectValue(echo, "an echo of the same bytes")) break;
        times.push_back(echo->receivedAt - start);
        const std::lock_guard lock(trafficMutex);
        showRequests = false;  // one of them is enough to see
    }
    Show({}, {});
    {
        const std::lock_guard lock(trafficMutex);
        showRequests = true;
    }
    if (times.empty()) return;
    std::ranges::sort(times);
    Note(Number(times.size()) + " echoes: fastest " + TimeText(times.front()) + ", median " +
         TimeText(times[times.size() / 2]) + ", slowest " + TimeText(times.back()));
}

void Demo::SendWrongChecksum() {
    auto packet = vexahost::BuildQueryDaqApplication(1, client->NextSequence());
    ++packet.Bytes()[vexa::kChecksumOffset];
    ExpectValue(client->SendRaw(packet.Bytes()), "the packet to be sent");
    Show({"Input from Host - BAD CHECKSUM: "}, {});
    // The next request is answered, and its answer is the only one.
    const auto before = client->Statistics().strayReplies;
    const auto holds = client->QueryDaqApplication();
    if (ExpectValue(holds, "an answer to the right packet")) {
        Expect(!*holds, "result 0 (the host holds the hardware)", "result 1");
    }
    Expect(client->Statistics().strayReplies == before, "no answer to the wrong packet", "one");
    Show({}, {"criAnswer(\"DAQ\", 3"});
}

void Demo::SendToUnknownChild() {
    ExpectValue(client->Send(kUnknownChild, HidInitRequest()), "the packet to be sent");
    Show({"Input from Host - Discarding orphaned tunnel packet.: "}, {});
}

void Demo::OpenUnsupported() {
    ExpectRefusal(client->OpenDevice("Camera", nextChild), nextChild, 54);
    Show({}, {});
}

void Demo::OpenTooMany() {
    const char* const names[] = {"Gyroscope", "Spectrometer", "Barometer", "LightMeter"};
    Note("a name stands for a type: the first device of that type is opened");
    for (std::size_t i = 0; children.size() + 1 < kMostChildren && failure.empty(); ++i) {
        OpenDevice(names[i % std::size(names)]);
    }
    if (!failure.empty()) return;
    ExpectRefusal(client->OpenDevice("Gyroscope", nextChild), nextChild, 50);
    Show({}, {});
}

void Demo::CloseChildren() {
    for (const auto& [name, child] : children) {
        ExpectValue(client->CloseDevice(child), name + " to close");
        Show({}, {"VEXA_Device_Stream_Close("});
    }
    children.clear();
}
