#include "e2e/RunningUnit.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;  // NOLINT

namespace vexa::test {

namespace {

namespace fs = std::filesystem;

constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kGlance = std::chrono::milliseconds(2);

Lines Split(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::size_t EntriesOf(const fs::path& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

}  // namespace

RunningUnit::RunningUnit(const std::string& scenario, const Lines& program) {
    std::string path = (fs::temp_directory_path() / "vexa-e2e-XXXXXX").string();
    folder = mkdtemp(path.data());
    std::ofstream(folder + "/scenario.json") << scenario;

    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    const std::string tool = std::string(PROGRAM_DIR) + "/vexa-unit";
    std::vector<std::string> words = {tool,         "run",
                                      "--dir",      folder,
                                      "--scenario", folder + "/scenario.json",
                                      "--journal",  folder + "/journal"};
    if (!program.empty()) words.push_back("--");
    words.insert(words.end(), program.begin(), program.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int result =
        posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (result != 0) ADD_FAILURE() << "cannot run " << words[0];
    reader = std::thread([this, end = ends[0]] { ReadOutput(end); });

    std::unique_lock lock(mutex);
    while (!ended && !fs::exists(SocketPath())) changed.wait_for(lock, kGlance);
}

RunningUnit::~RunningUnit() {
    if (process > 0) Stop();
    reader.join();
    fs::remove_all(folder);
}

void RunningUnit::ReadOutput(int descriptor) {
    std::array<char, 4096> chunk{};
    for (ssize_t count = 1; count > 0;) {
        count = read(descriptor, chunk.data(), chunk.size());
        const std::scoped_lock lock(mutex);
        output.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        ended = count <= 0;
        changed.notify_all();
    }
    close(descriptor);
}

std::size_t RunningUnit::AwaitLine(const std::string& end, std::size_t from) {
    std::unique_lock lock(mutex);
    std::size_t found = 0;
    const auto hasCome = [&] {
        const Lines lines = Split(output.substr(0, output.rfind('\n') + 1));
        for (std::size_t i = from; i < lines.size(); ++i) {
            if (!lines[i].ends_with(end)) continue;
            found = i + 1;
            return true;
        }
        return false;
    };
    if (!changed.wait_for(lock, kPatience, [&] { return hasCome() || ended; }) || found == 0) {
        ADD_FAILURE() << "never printed: " << end << "\nbut:\n" << output;
    }
    return found;
}

Lines RunningUnit::Printed() {
    const std::scoped_lock lock(mutex);
    return Split(output);
}

Lines RunningUnit::Journal() const {
    std::ostringstream text;
    text << std::ifstream(folder + "/journal").rdbuf();
    return Split(text.str());
}

int RunningUnit::Wait() {
    int status = 0;
    waitpid(process, &status, 0);
    process = -1;
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, kPatience, [&] { return ended; }));
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int RunningUnit::Stop() {
    kill(process, SIGTERM);
    return Wait();
}

std::pair<std::size_t, std::size_t> RunningUnit::ThreadsAndDescriptors() const {
    const std::string tool = std::to_string(process);
    std::string service;
    // The program is the last: what tidies up after the tool has been started before it.
    std::ifstream children("/proc/" + tool + "/task/" + tool + "/children");
    while (children >> service) {
    }
    return {EntriesOf("/proc/" + service + "/task"), EntriesOf("/proc/" + service + "/fd")};
}

Host::Host(RunningUnit& unit) {
    const std::size_t before = unit.Printed().size();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, unit.SocketPath().c_str(), sizeof address.sun_path - 1);
    descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "cannot connect to " << address.sun_path;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    unit.AwaitLine("USB gadget cable is plugged in.", before);
}

Host::~Host() { close(descriptor); }

void Host::Send(const Bytes& bytes) const {
    EXPECT_EQ(send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

bool Host::Fill(int milliseconds) {
    pollfd poller{descriptor, POLLIN, 0};
    if (poll(&poller, 1, milliseconds) != 1) return false;
    received.resize(4096);
    const ssize_t count = recv(descriptor, received.data(), received.size(), 0);
    if (count <= 0) return false;
    left = std::span(received).first(static_cast<std::size_t>(count));
    return true;
}

std::string Host::Receive() {
    for (;;) {
        if (const auto packet = packets.Next(payload)) return ToHex(packet->bytes);
        payload = frames.Next(left);
        if (frames.IsViolated() || packets.IsViolated()) return "violation";
        if (payload.empty() && !Fill(10000)) return "timeout";
    }
}

std::string Host::Ask(const Bytes& bytes) {
    Send(bytes);
    return Receive();
}

void Host::AwaitFullWindow() const {
    int before = -1;
    for (int waiting = 0; waiting == 0 || waiting > before;) {
        before = waiting;
        // Longer than the service's writer pauses between two writes.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_EQ(ioctl(descriptor, FIONREAD, &waiting), 0);
    }
}

}  // namespace vexa::test
