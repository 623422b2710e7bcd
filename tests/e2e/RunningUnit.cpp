#include "e2e/RunningUnit.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace vexa::test {

namespace {

namespace fs = std::filesystem;

std::size_t EntriesOf(const fs::path& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

}  // namespace

RunningUnit::RunningUnit(const std::string& scenario, const Lines& program) {
    std::string path = (fs::temp_directory_path() / "vexa-e2e-XXXXXX").string();
    folder = mkdtemp(path.data());
    std::ofstream(folder + "/scenario.json") << scenario;
    testkit::ProcessCall call;
    call.command = {Program("vexa-unit"),
                    "run",
                    "--dir",
                    folder,
                    "--scenario",
                    folder + "/scenario.json",
                    "--journal",
                    folder + "/journal"};
    if (!program.empty()) call.command.emplace_back("--");
    call.command.insert(call.command.end(), program.begin(), program.end());
    call.deathSignal = SIGTERM;
    process.emplace(call);
    EXPECT_TRUE(testkit::WaitUntil(
        kPatience, [&] { return fs::exists(SocketPath()) || process->Status().has_value(); }));
}

RunningUnit::~RunningUnit() {
    process->Stop(kPatience);
    process.reset();
    fs::remove_all(folder);
}

std::size_t RunningUnit::AwaitLine(const std::string& end, std::size_t from) {
    const std::size_t found = process->Log().WaitFor(end + '\n', kPatience, from);
    if (found != std::string::npos) return found;
    ADD_FAILURE() << "never printed: " << end << "\nbut:\n" << process->Log().Text();
    return from;
}

Lines RunningUnit::Printed() {
    Lines lines = process->Log().Lines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("vexa-unit: "); });
    return lines;
}

Lines RunningUnit::Calls(const std::string& start) const {
    std::ostringstream text;
    text << std::ifstream(folder + "/journal").rdbuf();
    Lines lines = testkit::SplitLines(text.str());
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(start); });
    return lines;
}

int RunningUnit::Wait() {
    const auto status = process->Wait(kPatience);
    EXPECT_TRUE(process->Log().WaitForEnd(kPatience));
    return status.value_or(-1);
}

int RunningUnit::Stop() {
    process->Signal(SIGTERM);
    return Wait();
}

pid_t RunningUnit::ServiceId() const {
    const std::string tool = std::to_string(process->Id());
    pid_t service = -1;
    // The program is the last: what tidies up after the tool was started before it.
    std::ifstream children("/proc/" + tool + "/task/" + tool + "/children");
    while (children >> service) continue;
    return service;
}

void RunningUnit::Signal(int number) const {
    const pid_t service = ServiceId();
    ASSERT_GT(service, 0);  // -1 would be every process there is
    kill(service, number);
}

std::pair<std::size_t, std::size_t> RunningUnit::ThreadsAndDescriptors() const {
    const fs::path service = "/proc/" + std::to_string(ServiceId());
    return {EntriesOf(service / "task"), EntriesOf(service / "fd")};
}

Host::Host(RunningUnit& unit) : descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const std::size_t before = unit.PrintedSize();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, unit.SocketPath().c_str(), sizeof address.sun_path - 1);
    EXPECT_TRUE(testkit::WaitUntil(kPatience,
                                   [&] {
                                       return connect(descriptor.Get(),
                                                      reinterpret_cast<sockaddr*>(&address),
                                                      sizeof address) == 0;
                                   }))
        << "cannot connect to " << address.sun_path;
    unit.AwaitLine("USB gadget cable is plugged in.", before);
}

void Host::Send(const Bytes& bytes) const {
    EXPECT_EQ(write(descriptor.Get(), bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
}

bool Host::Fill(int milliseconds) {
    pollfd poller{descriptor.Get(), POLLIN, 0};
    if (poll(&poller, 1, milliseconds) != 1) return false;
    received.resize(4096);
    const ssize_t count = read(descriptor.Get(), received.data(), received.size());
    if (count <= 0) return false;
    left = std::span(received).first(static_cast<std::size_t>(count));
    return true;
}

std::string Host::Receive() {
    for (;;) {
        if (const auto packet = packets.Next(payload)) return ToHex(packet->bytes);
        payload = framed ? frames.Next(left) : std::exchange(left, {});
        if (frames.IsViolated() || packets.IsViolated()) return "violation";
        if (payload.empty() && !Fill(10000)) return "timeout";
    }
}

std::string Host::Ask(const Bytes& bytes) {
    Send(bytes);
    return Receive();
}

void Host::Await(const std::string& wanted) {
    std::string packet;
    while (packet.find(wanted) == std::string::npos && packet != "timeout") packet = Receive();
    EXPECT_NE(packet, "timeout") << "waiting for " << wanted;
}

void Host::AwaitFullWindow() const {
    int before = -1;
    for (int waiting = 0; waiting == 0 || waiting > before;) {
        before = waiting;
        // Longer than the service's writer pauses between two writes.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_EQ(ioctl(descriptor.Get(), FIONREAD, &waiting), 0);
    }
}

}  // namespace vexa::test
