// What the configuration file and the command line ask for.
#pragma once

#include <cstdint>
#include <string>

namespace kv_server {

struct Options {
    // An IPv4 or IPv6 literal.
    std::string bind = "127.0.0.1";
    // 0 lets the system choose.
    std::uint64_t port = 6379;
    // Seconds; 0 for never.
    std::uint64_t idleTimeout = 300;
    std::uint64_t maxClients = 10000;
    // Megabytes that commands and replies of all clients may take together.
    std::uint64_t clientMemory = 256;
    // "epoll", "select" or "rtsig".
    std::string reactor = "epoll";
    // A trace file that several processes write to; "" for none.
    std::string sharedTrace;
};

}  // namespace kv_server
