// What the command line asks for.
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
    bool help = false;
};

// Answers what is wrong, in one line for people, or "" when `options` can be used.
std::string ParseOptions(int argc, const char* const* argv, Options& options);

// The text of --help.
std::string GetUsage();

}  // namespace kv_server
