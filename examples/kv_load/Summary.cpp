#include <common/Clock.h>
#include <kv_load/Summary.h>

#include <cstdio>
#include <string>

namespace kv_load {

namespace {

double ToMs(std::uint64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

std::string GetVerdict(const Options& options, const LoadProgress& progress, int signal) {
    const unsigned long long failed = progress.failed;
    if (failed != 0) {
        return "FAILED: " + std::to_string(failed) + " of " + std::to_string(options.connections) +
               " connections given up";
    }
    if (GetExitStatus(options, progress, signal) != 0) {
        return "interrupted; every reply until then was right";
    }
    return "every reply was right";
}

}  // namespace

void PrintSummary(const Options& options, const LoadProgress& progress, int signal) {
    const LatencyHistogram& latency = progress.latency;
    const unsigned long long count = latency.GetCount();
    const std::int64_t duration =
        progress.startedAt != 0 ? progress.endedAt - progress.startedAt : 0;
    const double seconds =
        static_cast<double>(duration) / static_cast<double>(examples::c_nsPerSecond);
    std::printf("requests    %llu of %llu\n", count,
                static_cast<unsigned long long>(options.requests));
    std::printf("connections %llu, pipeline %llu, value size %llu\n",
                static_cast<unsigned long long>(options.connections),
                static_cast<unsigned long long>(options.pipeline),
                static_cast<unsigned long long>(options.valueSize));
    std::printf("seconds     %.3f\n", seconds);
    std::printf("throughput  %.0f requests/s\n",
                seconds > 0 ? static_cast<double>(count) / seconds : 0.0);
    std::printf("latency ms  p50 %.3f  p99 %.3f  p99.9 %.3f  max %.3f\n",
                ToMs(latency.GetQuantile(500)), ToMs(latency.GetQuantile(990)),
                ToMs(latency.GetQuantile(999)), ToMs(latency.GetMax()));
    std::printf("result      %s\n", GetVerdict(options, progress, signal).c_str());
}

int GetExitStatus(const Options& options, const LoadProgress& progress, int signal) {
    if (progress.failed != 0) {
        return 1;
    }
    if (progress.latency.GetCount() == options.requests) {
        return 0;
    }
    return signal != 0 ? 128 + signal : 1;
}

}  // namespace kv_load
