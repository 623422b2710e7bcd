// The controller of the model, and its sessions with the applications.
#include <algorithm>

#include "model/ModelUnit.h"

namespace vexa::test {

namespace {

constexpr std::size_t kMostChildren = 10;

}  // namespace

void ModelUnit::StepController() {
    if (controller == kIdle) return;
    if (controller == kNew) step = 0;
    controller = kBusy;
    switch (command[4]) {
        case 0x70:
            return OpenChild();
        case 0x71:
            return CloseChild();
        case 0x73:
            return AskDaq();
        case 0x74:
            return TakeOver();
        default:
            return Reply(0x9C, command[4], 49);
    }
}

void ModelUnit::OpenChild() {
    const std::uint32_t id = NumberAt(command, 5);
    const std::uint32_t length = command[9];
    if (Find(id) != nullptr) return Reply(0x9C, 0x70, 54);
    if (children.size() >= kMostChildren) return Reply(0x9C, 0x70, 50);
    if (length >= 221) return Reply(0x9C, 0x70, 54);
    std::string name;
    for (std::uint32_t i = 0; i < length && command[10 + i] != 0; ++i) {
        name += static_cast<char>(command[10 + i]);
    }
    const std::uint32_t type = name.size() == 1 && name >= "a" && name <= "l"
                                   ? static_cast<std::uint32_t>(name[0] - 'a')
                                   : 12;
    const bool isReports = type == 2 || type == 3 || type == 4;
    const bool isBlocks = type == 8 || type == 9 || type == 11;
    if (!isReports && !isBlocks) return Reply(0x9C, 0x70, 54);
    now.calls.push_back("VEXA_SearchForDevices(9, " + std::to_string(type) + ", 1, 0)");
    now.calls.push_back("VEXA_CloseDeviceListSnapshot(" + std::to_string(100 + type) + ")");
    if (attached.count(type) == 0) return Reply(0x9C, 0x70, 54);
    const std::uint32_t stream =
        OpenStream({DeviceName(type), isReports ? Stream::kReports : Stream::kBlocks, id}, 3);
    if (stream == 0) return Reply(0x9C, 0x70, 54);
    children.push_back({id, false, stream});
    Reply(0x98, 0x70, 0);
}

void ModelUnit::CloseChild() {
    const Child* const child = Find(NumberAt(command, 5));
    if (child == nullptr) return Reply(0x9C, 0x70, 54);
    if (!child->isController) {
        now.calls.push_back("VEXA_Device_Stream_Close(" + std::to_string(child->stream) + ")");
        streams.erase(child->stream);
    }
    const bool isController = child->isController;
    const auto at = child - children.data();
    Reply(0x98, 0x71, 0);
    if (!isController) {
        children.erase(children.begin() + at);
        return;
    }
    CloseAll();
    Ask(splash, 2, 1000);
    splash.released = true;
    Ask(daqSession, 1, 1000);
    daqSession.released = true;
}

void ModelUnit::AskDaq() {
    switch (step) {
        case 0:
            if (daqSession.failed) return Reply(0x9C, command[4], 50);
            step = 1;
            return;
        case 1:
            if (daqSession.state == Session::kIdle) {
                step = 2;
            } else {
                daqSession.released = true;
            }
            return;
        case 2:
            Ask(daqSession, 3, 1000);
            step = 3;
            return;
        case 3:
            if (daqSession.state != Session::kDone) return;
            result = daqSession.response == 1 ? 1 : 0;
            daqSession.state = Session::kIdle;
            step = 10;
            return;
        default:
            Reply(0x98, command[4], result);
    }
}

void ModelUnit::TakeOver() {
    if (step < 3) return AskDaq();
    switch (step) {
        case 3:
            if (daqSession.state != Session::kDone) return;
            if (daqSession.response == -1) daqSession.holder = 2;
            step = daqSession.response == -1 ? 50 : 10;
            daqSession.state = Session::kIdle;
            return;
        case 10:
            Ask(daqSession, 2, 10000);
            step = 11;
            return;
        case 11:
            if (daqSession.state != Session::kDone) return;
            daqSession.state = Session::kIdle;
            step = 50;
            return;
        case 50:
            if (!OpenDaq()) return Reply(0x9C, command[4], 57);
            step = 60;
            return;
        case 60:
            if (splash.state == Session::kIdle) {
                step = 61;
            } else {
                splash.released = true;
            }
            return;
        case 61:
            Ask(splash, 1, 1000);
            splash.released = true;
            step = 62;
            return;
        default:
            Ask(fgen, 4, 1000);
            fgen.released = true;
            Reply(0x98, 0x74, 0);
    }
}

// Ends the command.
void ModelUnit::Reply(std::uint8_t type, std::uint8_t about, std::uint8_t code) {
    const auto found = std::find_if(children.begin(), children.end(),
                                    [](const Child& child) { return child.isController; });
    Child none;
    Child& from = found == children.end() ? none : *found;
    const Bytes inner = Sealed({type, 7, from.sequence, 0, about, command[2], code});
    Send(Sealed(Bytes{0x60, 15, from.sequence, 0} + NumberBytes(from.id) + inner));
    ++from.sequence;
    controller = kIdle;
}

bool ModelUnit::Ask(Session& session, int what, int time) {
    if (session.state != Session::kIdle) return false;
    if (what < 3) session.holder = what;
    session.command = what;
    session.time = time;
    session.released = false;
    session.state = Session::kAsked;
    return true;
}

void ModelUnit::Poll(Session& session) {
    if (session.state == Session::kAsked) {
        session.inFlight = true;
        session.answered = false;
        now.calls.push_back("criCommand(" + session.name + ", " + std::to_string(session.command) +
                            ", " + std::to_string(session.time) + ")");
        session.state = Session::kSent;
        if (!commandsSucceed) {
            session.inFlight = false;
            session.response = -1;
            session.state = Session::kDone;
            if (!session.failed) Print("vexAppSession(120) : criCommand() failed.");
            session.failed = true;
        } else if (answersAtOnce.count(session.command) != 0) {
            Answer(session, session.command, answersAtOnce[session.command]);
        }
    } else if (session.state == Session::kSent) {
        if (!session.answered) return;
        session.state = Session::kDone;
        session.inFlight = false;
    } else if (session.state == Session::kDone && session.released) {
        session.state = Session::kIdle;
    }
}

void ModelUnit::Answer(Session& session, int what, int response) {
    const bool expected = session.inFlight && !session.answered;
    if (expected && what == session.command) {
        session.answered = true;
        session.response = response;
        return;
    }
    if (session.warned) return;
    session.warned = true;
    Print(expected
              ? "vexAppSession(165) : criLib cmd received did not match expected value. "
                "Expected cmd = " +
                    std::to_string(session.command) + ". Received cmd = " + std::to_string(what)
              : "vexAppSession(154) : Unexpected criLib cmd response. Cmd = " +
                    std::to_string(what) + ". Response = " + std::to_string(response));
}

}  // namespace vexa::test
