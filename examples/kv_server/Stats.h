// What INFO tells of the connections.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kv_server {

// Counted on the network thread, read on the store's.
struct Stats {
    const std::time_t startedAt = std::time(nullptr);
    std::atomic<std::uint64_t> connected{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> refused{0};
    unsigned short port = 0;  // set before there are clients
};

}  // namespace kv_server
