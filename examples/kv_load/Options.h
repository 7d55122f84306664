// What the command line asks for.
#pragma once

#include <cstdint>
#include <string>

namespace kv_load {

struct Options {
    // A name, or an IPv4 or IPv6 address.
    std::string host = "127.0.0.1";
    std::uint64_t port = 0;
    std::uint64_t connections = 50;
    // Requests that a connection has under way.
    std::uint64_t pipeline = 16;
    // Bytes.
    std::uint64_t valueSize = 32;
    // Of all connections together.
    std::uint64_t requests = 100000;
    std::uint64_t keys = 10000;
    // Seconds.
    std::uint64_t connectTimeout = 10;
    std::uint64_t stallTimeout = 30;
};

}  // namespace kv_load
