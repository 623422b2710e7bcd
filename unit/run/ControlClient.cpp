#include "run/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "model/UnitSocket.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {
constexpr int kAnswerTimeoutMs = 10000;
}

ControlClient::ControlClient(const std::string& folder_)
    : folder(folder_), connection(ConnectTo(ControlSocketPath(folder_))) {
    if (connection) return;
    if (errno == EAGAIN) FailUnanswered();
    throw UserError("no unit to control in " + folder + ": " + std::strerror(errno));
}

void ControlClient::FailUnanswered() const {
    throw UserError("the unit in " + folder +
                    " does not answer; its program may not have used a library yet");
}

void ControlClient::Send(std::string line) const {
    line += '\n';
    for (std::string_view left = line; !left.empty();) {
        const auto went = ::send(connection.Get(), left.data(), left.size(), MSG_NOSIGNAL);
        if (went < 0 && errno == EAGAIN) FailUnanswered();
        if (went < 0) return;  // it has hung up, and perhaps said why
        left.remove_prefix(static_cast<std::size_t>(went));
    }
}

std::optional<std::string> ControlClient::ReceiveLine(int timeoutMs) {
    while (true) {
        if (const auto end = received.find('\n'); end != std::string::npos) {
            std::string line = received.substr(0, end);
            received.erase(0, end + 1);
            return line;
        }
        pollfd entry{connection.Get(), POLLIN, 0};
        if (::poll(&entry, 1, timeoutMs) == 0) FailUnanswered();
        std::array<char, 65536> chunk{};
        const auto got = ::recv(connection.Get(), chunk.data(), chunk.size(), 0);
        if (got <= 0) return std::nullopt;
        received.append(chunk.data(), static_cast<std::size_t>(got));
    }
}

std::string ControlClient::Ask(const std::string& line, std::uint32_t waitMs) {
    Send(line);
    const auto answer = ReceiveLine(kAnswerTimeoutMs + static_cast<int>(waitMs));
    if (!answer) throw UserError("the unit in " + folder + " has ended");
    return *answer;
}

std::optional<std::string> ControlClient::Receive() { return ReceiveLine(-1); }

}  // namespace vexa::unit
