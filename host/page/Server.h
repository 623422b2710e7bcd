// Serves the live page and its data.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "page/LiveUnit.h"
#include "vexahost/Expected.h"

namespace vexahost::page {

struct ServerOptions {
    LiveUnit::Options unit;
    std::string unitText;               // where the unit is, for a person
    std::string version;                // of vexa-host
    std::string controlSocket;          // of a virtual unit; empty: none
    std::string address = "127.0.0.1";  // to listen on
    int port = 8138;                    // 0: any
    std::vector<std::string> hosts{};   // more names under which viewers may reach the page
    bool mayControl = true;
    std::string recording{};  // file that the session is recorded to; empty: none
    std::function<void(const std::string& what)> warn{};  // what the operator has to know
};

// The page's address with its token. Called once, when the page can be reached.
using Announcement = std::function<void(const std::string& url)>;

// Serves until `isEnded` returns true, which is asked at least every 100 ms. kInvalidArgument when
// the address cannot be used or the recording not be made; kCannotConnect when the port is taken.
Expected<Done> Serve(const ServerOptions& options, const Announcement& announce,
                     const std::function<bool()>& isEnded);

// True for an address that only this machine reaches.
[[nodiscard]] bool IsLoopback(const std::string& address);

}  // namespace vexahost::page
