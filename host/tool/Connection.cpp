#include "Connection.h"

#include <cstdlib>

#include "vexahost/SocketTransport.h"

std::string DefaultUnitDirectory() {
    const char* directory = std::getenv("VEXA_UNIT_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "build/unit";
}

vexahost::Expected<std::unique_ptr<vexahost::Client>> ConnectAndSync(const UnitAddress& unit) {
    auto transport = unit.tcp.empty() ? vexahost::SocketTransport::ConnectUnit(unit.directory)
                                      : vexahost::SocketTransport::ConnectTcp(unit.tcp);
    if (!transport) return transport.Failure();
    auto client = std::make_unique<vexahost::Client>(std::move(*transport));
    if (const auto reply = client->InitialSync(); !reply) return reply.Failure();
    return client;
}
