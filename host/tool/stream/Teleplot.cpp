// Samples for a plotter that listens for text on UDP:
//
//   NAME:MILLISECONDS:VALUE|g              with a unit NAME:MILLISECONDS:VALUE§UNIT|g
//
// Milliseconds count from 1970; "|g" asks for a graph.
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "testkit/Descriptor.h"
#include "tool/Samples.h"
#include "tool/stream/StreamSink.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kMostDatagram = 1400;  // it fits into a packet of an Ethernet
constexpr const char* kUsualPort = "47269";

// The marks of the format, and what would end the line, cannot stand in a name.
std::string PlotName(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) <= ' ' || std::strchr(":;|,", c) != nullptr) c = '_';
    }
    return text;
}

class TeleplotSink final : public StreamSink {
  public:
    TeleplotSink(vexa::testkit::Descriptor socket_, const TimeWriter& times_, bool namesDevice_)
        : socket(std::move(socket_)), times(times_), namesDevice(namesDevice_) {}

    void Add(const StreamedBlock& from) override {
        if (from.samples == nullptr) return;
        for (std::size_t channel = 0; channel < from.samples->values.size(); ++channel) {
            const ChannelFormat& format = from.format->channels[channel];
            const std::string name =
                PlotName(namesDevice ? from.label + '.' + format.name : format.name);
            const std::string end =
                (format.unit.empty() ? "" : "§" + PlotName(format.unit)) + "|g\n";
            const auto& values = from.samples->values[channel];
            for (std::size_t i = 0; i < values.size(); ++i) {
                char time[32];
                const double milliseconds = times.Epoch(from.samples->TimeOf(i)) * 1000;
                std::snprintf(time, sizeof time, ":%.3f:", milliseconds);
                std::string line = name + time;
                AppendValue(line, values[i]);
                line += end;
                if (pending.size() + line.size() > kMostDatagram) Send();
                pending += line;
            }
        }
    }

    Expected<Done> Update() override {
        Send();
        return Done{};
    }
    void Finish() override { Send(); }

  private:
    // A plotter that is not there, or not fast enough, must not hold up the stream.
    void Send() {
        if (pending.empty()) return;
        (void)send(socket.Get(), pending.data(), pending.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        pending.clear();
    }

    const vexa::testkit::Descriptor socket;
    const TimeWriter times;
    const bool namesDevice;
    std::string pending;
};

}  // namespace

Expected<std::unique_ptr<StreamSink>> MakeTeleplotSink(const std::string& address,
                                                       const TimeWriter& times, bool namesDevice) {
    const auto wrong = [&](const std::string& why) {
        return Error{ErrorKind::kInvalidArgument, "--teleplot " + address + ": " + why};
    };
    // An IPv6 address stands in brackets when a port follows it.
    std::string host = address;
    std::string port = kUsualPort;
    const std::size_t colon = address.rfind(':');
    const bool isBare = address.find(':') != colon && address.back() != ']' &&
                        address.find("]:") == std::string::npos;
    if (colon != std::string::npos && !isBare && address.back() != ']') {
        host = address.substr(0, colon);
        port = address.substr(colon + 1);
    }
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
        return wrong(gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    int failure = 0;
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        vexa::testkit::Descriptor made(
            socket(each->ai_family, each->ai_socktype | SOCK_CLOEXEC, each->ai_protocol));
        if (made && connect(made.Get(), each->ai_addr, each->ai_addrlen) == 0) {
            return std::unique_ptr<StreamSink>(
                std::make_unique<TeleplotSink>(std::move(made), times, namesDevice));
        }
        failure = errno;
    }
    return wrong(std::strerror(failure));
}

}  // namespace vexahost::tool
