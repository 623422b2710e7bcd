#include "model/ModelUnit.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace vexa::test {

namespace {

constexpr std::size_t kInputRoom = 9999;

Bytes First(const Bytes& bytes, std::size_t count) {
    Bytes first = bytes;
    first.resize(count);
    return first;
}

bool IsSealed(const Bytes& packet) { return Sealed(packet) == packet; }

// n and 0x4F - n from 5 on for the request; n and 0xFF - n from 0x55 on for the reply.
Bytes Signature(std::uint8_t from, std::uint8_t sum) {
    Bytes signature;
    for (std::uint8_t n = from; n < from + 10; ++n) {
        signature.push_back(n);
        signature.push_back(static_cast<std::uint8_t>(sum - n));
    }
    return signature;
}

Bytes SyncRequest(std::uint8_t sequence) {
    return Sealed(Bytes{0x40, 25, sequence, 0, 26} + Signature(5, 0x4F));
}

Bytes SyncReply(std::uint8_t type, std::uint8_t counter, std::uint8_t sequence) {
    return Sealed(Bytes{type, 26, counter, 0, 26, sequence} + Signature(0x55, 0xFF));
}

}  // namespace

ModelUnit::ModelUnit() {
    for (std::uint32_t type = 0; type < 12; ++type) attached.insert(type);
    daqSession.name = "DAQ";
    daqSession.holder = 1;
    splash.name = "SPLASH";
    splash.holder = 2;
    fgen.name = "FGEN";
    lastHandle = 3;  // a session has the library's next handle
    goodHeader.assign(8, 0);
}

Outcome ModelUnit::Take(const Event& event) {
    now = {};
    const bool on = event.number != 0;
    switch (event.kind) {
        case EventKind::kHostSends:
            input.insert(input.end(), event.bytes.begin(), event.bytes.end());
            while (input.size() > kInputRoom) input.pop_front();
            break;
        case EventKind::kPasses:
            for (std::uint32_t pass = 0; pass < event.number; ++pass) Pass();
            break;
        case EventKind::kStreamSends:
            if (streams.empty()) break;
            now.taken = FromStream(
                std::next(streams.begin(), static_cast<long>(event.number % streams.size()))
                    ->second,
                event.bytes);
            break;
        case EventKind::kAnswer:
            Answer(sessions[event.number], static_cast<int>(event.command), event.response);
            break;
        case EventKind::kLink:
            link = on;
            break;
        case EventKind::kDevice:
            attached.erase(event.number);
            if (event.command != 0) attached.insert(event.number);
            break;
        case EventKind::kStreamsOpen:
            streamsOpen = on;
            break;
        case EventKind::kWritesSucceed:
            writesSucceed = on;
            break;
        case EventKind::kPlainOpens:
            plainOpens = on;
            break;
        case EventKind::kCommandsSucceed:
            commandsSucceed = on;
            break;
        case EventKind::kAnswersAtOnce:
            answersAtOnce.erase(static_cast<int>(event.command));
            if (on) answersAtOnce[static_cast<int>(event.command)] = event.response;
            break;
    }
    return now;
}

void ModelUnit::Pass() {
    FollowLink();
    if (connected) {
        while (!input.empty() && !packet) {
            const std::uint8_t byte = input.front();
            input.pop_front();
            if (TakeByte(byte)) break;
        }
        if (packet) Route();
        packet.reset();
        StepController();
    } else {
        HandBack(splash, 1, 2);
        HandBack(daqSession, 2, 1);
    }
    for (Session& session : sessions) Poll(session);
}

void ModelUnit::FollowLink() {
    if (link != linkSeen || !link) Disconnect();
    linkSeen = link;
    if (link) connected = true;
}

void ModelUnit::HandBack(Session& session, int holder, int what) {
    if (session.holder != holder) return;
    Ask(session, what, 1000);
    session.released = true;
}

// True when it completes an initial sync.
bool ModelUnit::TakeByte(std::uint8_t byte) {
    sinceSync.push_back(byte);
    if (sinceSync.size() >= 25) {
        const Bytes last(sinceSync.end() - 25, sinceSync.end());
        if ((last[0] & 0xE0U) == 0x40 && last[1] == 25 && last[4] == 26 && IsSealed(last) &&
            Bytes(last.begin() + 5, last.end()) == Signature(5, 0x4F)) {
            if (!partial.empty()) Dump("PRE_INIT", partial);
            Dump("INIT", last);
            partial.clear();
            sinceSync.clear();
            replyCounter = 0;
            packet = First(last, 256);
            return true;
        }
    }
    partial.push_back(byte);
    if (partial.size() < 4 || partial.size() < partial[1]) return false;
    if (partial.size() == partial[1] && IsSealed(partial)) {
        packet = First(partial, 256);
    } else {
        Dump("BAD CHECKSUM", partial);
    }
    partial.clear();
    return false;
}

void ModelUnit::Route() {
    const Bytes& p = *packet;
    const Bytes whole = First(p, p[1]);
    if ((p[0] & 0xE0U) == 0x40) {
        if (daq != 0) {
            WriteStream(daq, whole);
        } else if (p[4] == 26) {
            Send(SyncReply(0xB8, replyCounter++, p[2]));
        } else {
            Send(Sealed({0x9C, 7, replyCounter++, 0, p[4], p[2], 48}));
        }
        return;
    }
    if ((p[0] & 0xE0U) != 0x60) return;
    if (p[12] == 0x72 ||
        (p[12] == 0x70 && p[17] == 11 && std::memcmp(&p[18], "Controller", 11) == 0)) {
        Reopen();
        return;
    }
    Child* const child = p[1] >= 8 ? Find(NumberAt(p, 4)) : nullptr;
    if (child == nullptr) {
        Dump("Discarding orphaned tunnel packet.", whole);
    } else if (!child->isController) {
        WriteStream(child->stream, Bytes(whole.begin() + 8, whole.end()));
    } else if (controller != kIdle) {
        Print("VEXADevMgr controller ignored new cmd because it was busy.");
    } else {
        command.assign(p.begin() + 8, p.end());
        controller = kNew;
    }
}

void ModelUnit::Reopen() {
    const Bytes& p = *packet;
    if (children.size() > 1) {
        Dump("Reopening Controller and abandoning children.", First(p, p[1]));
    }
    CloseAll();
    controller = kIdle;
    daqSession.released = true;
    splash.released = true;
    children.push_back({NumberAt(p, 13), true});
    command.assign(p.begin() + 8, p.end());
    const bool good = (p[12] == 0x72 && p[17] == 0) || OpenDaq();
    Reply(good ? 0x98 : 0x9C, p[12], good ? 0 : 59);
}

bool ModelUnit::OpenDaq() {
    if (daq != 0) return true;
    fromDaq.clear();
    goodHeader.assign(8, 0);
    daqErrors = 0;
    now.calls.push_back("VEXA_SearchForDevices(9, 5, 2, 0)");
    now.calls.push_back("VEXA_CloseDeviceListSnapshot(105)");
    if (attached.count(5) == 0) return false;
    daq = OpenStream({DeviceName(5), Stream::kDaq}, 4);
    if (daq == 0) return false;
    now.writes.push_back(std::to_string(daq) + ": " + ToHex(SyncRequest(77)));
    if (!writesSucceed) {
        now.calls.push_back("VEXA_Device_Stream_Close(" + std::to_string(daq) + ")");
        streams.erase(daq);
        daq = 0;
        return false;
    }
    Print("DAQIO(113) : DAQ successfully replied to initial sync VEXA_CMD_ID_INIT.");
    return true;
}

void ModelUnit::CloseDaq() {
    if (daq == 0) return;
    now.calls.push_back("VEXA_Device_Stream_Close(" + std::to_string(daq) + ")");
    streams.erase(daq);
    daq = 0;
    now.calls.push_back("VEXA_Device_Open(" + DeviceName(5) + ", mode 1)");
    if (plainOpens) {
        ++lastHandle;
        now.calls.push_back("VEXA_Device_Close()");
        Print("DAQIO(141) : Init during DAQ close succeeded.");
    } else {
        Print("DAQIO(144) : Init during DAQ close failed.");
    }
}

void ModelUnit::FromDaq(const Bytes& bytes) {
    for (const std::uint8_t byte : bytes) {
        fromDaq.push_back(byte);
        if (fromDaq.size() < 4 || fromDaq.size() < fromDaq[1]) continue;
        Send(First(fromDaq, fromDaq[1]));
        const Bytes header = First(fromDaq, 8);
        const bool good =
            fromDaq.size() == 4 ? fromDaq[3] == Sealed(fromDaq)[3] : IsSealed(fromDaq);
        if (daqErrors < 10 && good) goodHeader = header;
        if (daqErrors < 10 && !good) {
            if (daqErrors++ == 0) Print("DAQIO(239) : DAQ->Host good blob: " + ToHex(goodHeader));
            Print("DAQIO(245) : DAQ->Host blob checksum err: " + ToHex(header));
        }
        fromDaq.clear();
    }
}

void ModelUnit::CloseAll() {
    for (const Child& child : children) {
        if (child.isController) {
            CloseDaq();
        } else {
            now.calls.push_back("VEXA_Device_Stream_Close(" + std::to_string(child.stream) + ")");
            streams.erase(child.stream);
        }
    }
    CloseDaq();
    children.clear();
}

void ModelUnit::Disconnect() {
    if (connected) CloseAll();
    connected = false;
}

std::uint32_t ModelUnit::OpenStream(const Stream& stream, int mode) {
    const std::uint32_t handle = streamsOpen ? ++lastHandle : 0;
    now.calls.push_back("VEXA_Device_Stream_Open(" + stream.device + ", mode " +
                        std::to_string(mode) + ") = " + std::to_string(handle));
    if (handle != 0) streams[handle] = stream;
    return handle;
}

// The board answers whatever has the size of an initial sync.
void ModelUnit::WriteStream(std::uint32_t stream, const Bytes& bytes) {
    now.writes.push_back(std::to_string(stream) + ": " + ToHex(bytes));
    if (!writesSucceed || streams[stream].kind != Stream::kDaq || bytes.size() != 25) return;
    if (attached.count(5) != 0) FromDaq(SyncReply(0xB8, 0, 77));
}

std::int32_t ModelUnit::FromStream(const Stream& stream, const Bytes& bytes) {
    if (stream.kind == Stream::kDaq) {
        FromDaq(bytes);
        return 0;
    }
    Child* const child = Find(stream.id);
    if (child == nullptr) return -1;
    const bool isReports = stream.kind == Stream::kReports;
    const bool fits = isReports ? bytes.size() == 8 : bytes.size() < 246;
    const bool arms = isReports && !bytes.empty() && (bytes[0] & 0xC0U) != 0;
    if (!fits) {
        if (child->warned) return -1;
        child->warned = true;
        child->armed = child->armed || arms;
        Print(std::string(isReports ? "TunneledHIDDeviceReadCallback"
                                    : "VEXADevMgr TunneledDeviceReadCallback") +
              " numBytes = " + std::to_string(bytes.size()) + " ");
        return -1;
    }
    child->armed = child->armed || arms;
    if (isReports && !child->armed) return 0;
    if (isReports && (bytes[0] & 0xC0U) == 0x80) Print("Tarn Init Response ");
    Send(Sealed(Bytes{0x60, static_cast<std::uint8_t>(bytes.size() + 8), child->sequence++, 0} +
                NumberBytes(child->id) + bytes));
    return 0;
}

void ModelUnit::Dump(const std::string& tag, const Bytes& bytes) {
    Print("Input from Host - " + tag + ":" + (bytes.empty() ? "" : " ") + ToHex(bytes));
}

void ModelUnit::Send(const Bytes& bytes) { now.toHost = now.toHost + bytes; }

ModelUnit::Child* ModelUnit::Find(std::uint32_t id) {
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const Child& child) { return child.id == id; });
    return found == children.end() ? nullptr : &*found;
}

}  // namespace vexa::test
