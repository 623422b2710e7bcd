// A small model of the service, written apart from the code under test and as plainly as the
// protocol allows: a byte at a time, everything by value, nothing shared with src/.
#pragma once

#include <algorithm>
#include <array>
#include <deque>
#include <iterator>
#include <map>
#include <utility>

#include "model/ModelSession.h"
#include "support/HostPackets.h"

namespace vexa::test {

// The service; `unit` is what the libraries do.
class ModelUnit {
  public:
    explicit ModelUnit(const ScriptedLibraries& unit_) : unit(unit_) {}

    Outcome Play(const Event& event) {
        now = {};
        if (event.kind == EventKind::kHostSends) {
            input.insert(input.end(), event.bytes.begin(), event.bytes.end());
            while (input.size() > 9999) input.pop_front();
        } else if (event.kind == EventKind::kPasses) {
            for (std::uint32_t pass = 0; pass < event.number; ++pass) Pass();
            now.result = connected && !input.empty() ? 1 : 0;
        } else if (event.kind == EventKind::kStreamSends && !streams.empty()) {
            const auto nth = static_cast<long>(event.which % streams.size());
            now.result = FromStream(std::next(streams.begin(), nth)->second, event.bytes);
        } else if (event.kind == EventKind::kAnswer) {
            sessions[event.which].Answer(event.number, event.response, now);
        } else if (event.kind == EventKind::kLink) {
            link = event.number != 0;
        }
        if (link) now.toHost = std::exchange(output, {});
        return now;
    }

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
        std::uint32_t type = 0;
        std::uint32_t id = 0;
    };
    static constexpr std::uint32_t kDaqType = 5;

    void Pass() {
        if (connected && !link) {
            CloseAll();
            output.clear();
        }
        connected = link;
        if (connected) {
            const Bytes packet = NextPacket();
            if (!packet.empty()) Route(packet);
            if (!command.empty()) StepController();
        } else {
            if (splash.holder == 1) splash.AskAndRelease(2);
            if (daqSession.holder == 2) daqSession.AskAndRelease(1);
        }
        for (ModelSession& session : sessions) session.Poll(unit, now);
    }

    // The next good packet, with zeros after it up to 256 bytes; empty when there is none yet.
    Bytes NextPacket() {
        while (!input.empty()) {
            newest.push_back(input.front());
            input.pop_front();
            if (newest.size() > 25) newest.erase(newest.begin());
            if (IsSync(newest)) {
                if (!partial.empty()) Dump("PRE_INIT", partial);
                Dump("INIT", newest);
                partial.clear();
                replyCounter = 0;
                return First(std::exchange(newest, {}), 256);
            }
            partial.push_back(newest.back());
            if (partial.size() < 4 || partial.size() < partial[1]) continue;
            const Bytes packet = std::exchange(partial, {});
            if (packet.size() == packet[1] && Sealed(packet) == packet) return First(packet, 256);
            Dump("BAD CHECKSUM", packet);
        }
        return {};
    }

    static bool IsSync(const Bytes& bytes) {
        if (bytes.size() != 25 || bytes.back() != 0x41 || (bytes[0] & 0xE0U) != 0x40) return false;
        Bytes sync = InitialSync(bytes[2]);
        sync[0] = bytes[0];
        return Sealed(sync) == bytes;
    }

    void Route(const Bytes& p) {
        const Bytes whole = First(p, p[1]);
        if ((p[0] & 0xE0U) == 0x40) {
            if (daq != 0) return WriteStream(daq, whole);
            if (p[4] == 26) return Send(SyncAnswer(replyCounter++, p[2]));
            return Send(Sealed({0x9C, 7, replyCounter++, 0, p[4], p[2], 48}));
        }
        if ((p[0] & 0xE0U) != 0x60) return;
        const bool byName = p[12] == 0x70 && p[17] == 11 &&
                            std::equal(&p[18], &p[18] + 11, "Controller");  // with its zero
        if (p[12] == 0x72 || byName) return Reopen(p);
        Child* const child = p[1] >= 8 ? Find(NumberAt(p, 4)) : nullptr;
        if (child == nullptr) {
            Dump("Discarding orphaned tunnel packet.", whole);
        } else if (!child->isController) {
            WriteStream(child->stream, Bytes(whole.begin() + 8, whole.end()));
        } else if (!command.empty()) {
            Print("VEXADevMgr controller ignored new cmd because it was busy.");
        } else {
            command.assign(p.begin() + 8, p.end());
            step = 0;
        }
    }

    void Reopen(const Bytes& p) {
        if (children.size() > 1) {
            Dump("Reopening Controller and abandoning children.", First(p, p[1]));
        }
        CloseAll();
        daqSession.released = true;
        splash.released = true;
        children.push_back({NumberAt(p, 13), true});
        command.assign(p.begin() + 8, p.end());
        const bool good = (p[12] == 0x72 && p[17] == 0) || OpenDaq();
        Reply(good ? 0x98 : 0x9C, p[12], good ? 0 : 59);
    }

    void StepController() {
        if (command[4] == 0x70) return OpenChild();
        if (command[4] == 0x71) return CloseChild();
        if (command[4] == 0x73) return AskDaq();
        if (command[4] == 0x74) return TakeOver();
        Reply(0x9C, command[4], 49);
    }

    void OpenChild() {
        const std::uint32_t id = NumberAt(command, 5);
        const int length = command[9];
        if (Find(id) != nullptr) return Reply(0x9C, 0x70, 54);
        if (children.size() >= 10) return Reply(0x9C, 0x70, 50);
        if (length > 220) return Reply(0x9C, 0x70, 54);
        const Bytes given(command.begin() + 10, command.begin() + 10 + std::min(length, 219));
        const std::string name(given.begin(), std::find(given.begin(), given.end(), 0));
        const auto known = unit.types.find(name);
        const std::uint32_t type = known == unit.types.end() ? 0 : known->second;
        const bool canBeOpened = IsReports(type) || type == 8 || type == 9 || type == 11;
        if (!canBeOpened || !FindDevice(type, 1)) return Reply(0x9C, 0x70, 54);
        const std::uint32_t stream = OpenStream({type, id}, 3);
        if (stream == 0) return Reply(0x9C, 0x70, 54);
        children.push_back({id, false, stream});
        Reply(0x98, 0x70, 0);
    }

    void CloseChild() {
        const Child* const found = Find(NumberAt(command, 5));
        if (found == nullptr) return Reply(0x9C, 0x70, 54);
        const Child child = *found;
        if (!child.isController) CloseStream(child.stream);
        Reply(0x98, 0x71, 0);
        if (child.isController) {
            CloseAll();
            splash.AskAndRelease(2);
            daqSession.AskAndRelease(1);
        } else {
            std::erase_if(children, [&](const Child& each) { return each.id == child.id; });
        }
    }

    void AskDaq() {
        if (step < 3) return AskDaqFirst();
        if (step == 4) return Reply(0x98, 0x73, result);
        if (!daqSession.Finish()) return;
        result = daqSession.response == 1 ? 1 : 0;
        step = 4;
    }

    void TakeOver() {
        if (step < 3) return AskDaqFirst();
        if (step == 3 && daqSession.Finish()) {
            if (daqSession.response == -1) daqSession.holder = 2;
            step = daqSession.response == -1 ? 6 : 4;
        } else if (step == 4) {
            daqSession.Ask(2, 10000);
            step = 5;
        } else if (step == 5 && daqSession.Finish()) {
            step = 6;
        } else if (step == 6) {
            if (!OpenDaq()) return Reply(0x9C, 0x74, 57);
            step = 7;
        } else if (step == 7) {
            Free(splash);
        } else if (step == 8) {
            splash.AskAndRelease(1);
            step = 9;
        } else if (step == 9) {
            fgen.AskAndRelease(4);
            Reply(0x98, 0x74, 0);
        }
    }

    // How both commands begin.
    void AskDaqFirst() {
        if (step == 0 && daqSession.failed) return Reply(0x9C, command[4], 50);
        if (step == 1) return Free(daqSession);
        if (step == 2) daqSession.Ask(3, 1000);
        ++step;
    }

    void Free(ModelSession& session) {
        session.released = session.released || session.state != ModelSession::kIdle;
        if (session.state == ModelSession::kIdle) ++step;
    }

    // Ends the command.
    void Reply(std::uint8_t type, std::uint8_t about, std::uint8_t code) {
        const auto found = std::find_if(children.begin(), children.end(),
                                        [](const Child& child) { return child.isController; });
        Child none;
        Child& from = found == children.end() ? none : *found;
        Send(Tunnel(from.id, Sealed({type, 7, from.sequence, 0, about, command[2], code}),
                    from.sequence));
        ++from.sequence;
        command.clear();
    }

    bool FindDevice(std::uint32_t type, int mode) {
        Call("VEXA_SearchForDevices(9, ", type, ", ", mode, ", 0)");
        if (unit.snapshotsOpen || mode == 2) {
            Call("VEXA_CloseDeviceListSnapshot(", unit.snapshotsOpen ? 100 + type : 0, ")");
        }
        return unit.snapshotsOpen && unit.attached.count(type) != 0;
    }

    bool OpenDaq() {
        if (daq != 0) return true;
        fromDaq.clear();
        goodHeader.assign(8, 0);
        daqErrors = 0;
        if (!FindDevice(kDaqType, 2)) return false;
        daq = OpenStream({kDaqType, 0}, 4);
        if (daq == 0) return false;
        now.writes.push_back(Joined(daq, ": ", ToHex(InitialSync(77))));
        if (!unit.writesSucceed) {
            CloseStream(std::exchange(daq, 0));
            return false;
        }
        Print("DAQIO(113) : DAQ successfully replied to initial sync VEXA_CMD_ID_INIT.");
        return true;
    }

    void CloseDaq() {
        if (daq == 0) return;
        CloseStream(std::exchange(daq, 0));
        Call("VEXA_Device_Open(", DeviceName(kDaqType), ", mode 1)");
        if (!unit.deviceOpens) return Print("DAQIO(144) : Init during DAQ close failed.");
        ++lastHandle;
        Call("VEXA_Device_Close()");
        Print("DAQIO(141) : Init during DAQ close succeeded.");
    }

    void FromDaq(const Bytes& bytes) {
        for (const std::uint8_t byte : bytes) {
            fromDaq.push_back(byte);
            if (fromDaq.size() < 4 || fromDaq.size() < fromDaq[1]) continue;
            const Bytes packet = std::exchange(fromDaq, {});
            Send(First(packet, packet[1]));
            if (daqErrors == 10) continue;
            const Bytes header = First(packet, 8);
            if (Sealed(packet) == packet) {
                goodHeader = header;
                continue;
            }
            if (daqErrors++ == 0) Print("DAQIO(239) : DAQ->Host good blob: " + ToHex(goodHeader));
            Print("DAQIO(245) : DAQ->Host blob checksum err: " + ToHex(header));
        }
    }

    void CloseAll() {
        for (const Child& child : children) {
            if (child.isController) {
                CloseDaq();
            } else {
                CloseStream(child.stream);
            }
        }
        CloseDaq();
        children.clear();
    }

    std::uint32_t OpenStream(const Stream& stream, int mode) {
        const std::uint32_t handle = unit.streamsOpen ? ++lastHandle : 0;
        Call("VEXA_Device_Stream_Open(", DeviceName(stream.type), ", mode ", mode, ") = ", handle);
        if (handle != 0) streams[handle] = stream;
        return handle;
    }

    void CloseStream(std::uint32_t handle) {
        Call("VEXA_Device_Stream_Close(", handle, ")");
        streams.erase(handle);
    }

    // The board answers whatever has the size of an initial sync.
    void WriteStream(std::uint32_t handle, const Bytes& bytes) {
        now.writes.push_back(Joined(handle, ": ", ToHex(bytes)));
        const bool isSync = streams[handle].type == kDaqType && bytes.size() == 25;
        if (unit.writesSucceed && isSync && unit.attached.count(kDaqType) != 0) {
            FromDaq(DaqSyncAnswer());
        }
    }

    static bool IsReports(std::uint32_t type) { return type >= 2 && type <= 4; }

    std::int32_t FromStream(const Stream& stream, const Bytes& bytes) {
        if (stream.type == kDaqType) return FromDaq(bytes), 0;
        Child* const child = Find(stream.id);
        if (child == nullptr) return -1;
        const bool isReports = IsReports(stream.type);
        const bool fits = isReports ? bytes.size() == 8 : bytes.size() < 246;
        if (!fits && std::exchange(child->warned, true)) return -1;
        if (isReports && !bytes.empty() && (bytes[0] & 0xC0U) != 0) child->armed = true;
        if (!fits) {
            Print(Joined(isReports ? "TunneledHID" : "VEXADevMgr Tunneled",
                         "DeviceReadCallback numBytes = ", bytes.size(), " "));
            return -1;
        }
        if (isReports && !child->armed) return 0;
        if (isReports && (bytes[0] & 0xC0U) == 0x80) Print("Tarn Init Response ");
        Send(Tunnel(child->id, bytes, child->sequence++));
        return 0;
    }

    Child* Find(std::uint32_t id) {
        const auto found = std::find_if(children.begin(), children.end(),
                                        [&](const Child& child) { return child.id == id; });
        return found == children.end() ? nullptr : &*found;
    }

    static Bytes First(Bytes bytes, std::size_t count) {
        bytes.resize(count);
        return bytes;
    }
    static std::uint32_t NumberAt(const Bytes& bytes, std::size_t at) {
        std::uint32_t number = 0;
        for (std::size_t i = 4; i-- > 0;) number = number << 8U | bytes[at + i];
        return number;
    }
    void Send(const Bytes& bytes) { output = output + bytes; }
    void Print(const std::string& line) { now.printed += line + "\n"; }
    void Dump(const std::string& tag, const Bytes& bytes) {
        Print("Input from Host - " + tag + ":" + (bytes.empty() ? "" : " ") + ToHex(bytes));
    }
    template <typename... Parts>
    void Call(const Parts&... parts) {
        now.calls.push_back(Joined(parts...));
    }

    const ScriptedLibraries& unit;
    std::uint32_t lastHandle = 3;  // each session has one
    std::map<std::uint32_t, Stream> streams;

    bool link = true;
    bool connected = false;
    std::deque<std::uint8_t> input;
    Bytes output;  // what the host has not read yet
    Bytes newest;  // the last 25 bytes since the last initial sync
    Bytes partial;
    std::uint8_t replyCounter = 0;
    std::vector<Child> children;
    Bytes command;  // the inner packet that the controller works on; empty: none
    int step = 0;
    std::uint8_t result = 0;
    std::array<ModelSession, 3> sessions{{{"DAQ", 1}, {"SPLASH", 2}, {"FGEN"}}};
    ModelSession& daqSession = sessions[0];
    ModelSession& splash = sessions[1];
    ModelSession& fgen = sessions[2];
    std::uint32_t daq = 0;  // its stream
    Bytes fromDaq;
    Bytes goodHeader;
    int daqErrors = 0;

    Outcome now;
};

}  // namespace vexa::test
