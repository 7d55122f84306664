// How far a run is.
#pragma once

#include <kv_load/LatencyHistogram.h>

#include <cstdint>

namespace kv_load {

// Belongs to the network thread while it runs; the main thread reads it afterwards.
struct LoadProgress {
    // Requests that no connection has made up yet; the connections take from here.
    std::uint64_t toIssue = 0;
    // Of NowNs(); 0 before the first request.
    std::int64_t startedAt = 0;
    std::int64_t endedAt = 0;
    // Connections that were given up.
    std::uint64_t failed = 0;
    // Of every request that got its right reply.
    LatencyHistogram latency;
};

}  // namespace kv_load
